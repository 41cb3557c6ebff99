// Process-wide settings for the duration of one test: an environment variable, the time zone, the locale.
//
// Thread rule: no other thread that reads them may run.
#pragma once

#include <clocale>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace zumod::testing {

class ScopedVariable {
public:
    ScopedVariable(const char* name, const std::string& value) : m_name(name) {
        if (const char* const old = std::getenv(name)) {
            m_old = old;
        }
        setenv(name, value.c_str(), 1);
    }
    ~ScopedVariable() {
        if (m_old) {
            setenv(m_name, m_old->c_str(), 1);
        } else {
            unsetenv(m_name);
        }
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    const char* m_name;
    std::optional<std::string> m_old;
};

// The zone is in POSIX form, which needs no zone file.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const std::string& zone) {
        m_variable.emplace("TZ", zone);
        tzset();
    }
    ~ScopedTimeZone() {
        m_variable.reset();
        tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::optional<ScopedVariable> m_variable;
};

class ScopedLocale {
public:
    explicit ScopedLocale(const char* name, int category = LC_ALL)
        : m_old(std::setlocale(LC_ALL, nullptr)), m_installed(std::setlocale(category, name) != nullptr) {}
    ~ScopedLocale() { std::setlocale(LC_ALL, m_old.c_str()); }
    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;

    bool IsInstalled() const { return m_installed; }

private:
    std::string m_old;
    bool m_installed;
};

}  // namespace zumod::testing
