// Results as text for people, as JSON, one object per line, and as JUnit's XML.
//
// Thread rule: one thread at a time.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "validate/result.h"

namespace zumod::validate {

struct Summary {
    int passed = 0;
    int failed = 0;
    int skipped = 0;
    int waived = 0;
};

class Report {
public:
    virtual ~Report() = default;
    virtual void BeginModule(const ModuleFile& module, uint64_t seed) = 0;
    virtual void Add(const Result& result) = 0;
    virtual void EndModule(const Summary& summary) = 0;

protected:
    Report() = default;
    Report(const Report&) = default;
    Report& operator=(const Report&) = default;
};

class TextReport final : public Report {
public:
    explicit TextReport(std::ostream& out) : m_out(out) {}
    void BeginModule(const ModuleFile& module, uint64_t seed) override;
    void Add(const Result& result) override;
    void EndModule(const Summary& summary) override;

private:
    std::ostream& m_out;
    ModuleFile m_module;
    uint64_t m_seed = 0;
};

class JsonReport final : public Report {
public:
    explicit JsonReport(std::ostream& out) : m_out(out) {}
    void BeginModule(const ModuleFile& module, uint64_t seed) override;
    void Add(const Result& result) override;
    void EndModule(const Summary& summary) override;

private:
    std::ostream& m_out;
    std::string m_file;
    uint64_t m_seed = 0;
};

class JunitReport final : public Report {
public:
    // The whole file is written by Finish.
    void BeginModule(const ModuleFile& module, uint64_t seed) override;
    void Add(const Result& result) override;
    void EndModule(const Summary& summary) override;
    void Finish(std::ostream& out) const;

private:
    std::string m_suites;
    std::string m_cases;
    std::string m_module;
};

// The table of checks, one per line.
void ListChecks(std::ostream& out, bool json);
void ExplainCheck(std::ostream& out, const Check& check);

}  // namespace zumod::validate
