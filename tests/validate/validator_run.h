// A run of zu-module-validate with --json, and what it reported.
//
// Thread rule: the test's thread.
#pragma once

#include <fcntl.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/file_content.h"
#include "tests/support/process/work_directory.h"

namespace zumod::testing {

struct ValidatorRun {
    int status = -1;
    std::string output;
    std::string errors;

    // The result objects, by the name of the check.
    std::map<std::string, nlohmann::json> Results() const {
        std::map<std::string, nlohmann::json> results;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            const auto object = nlohmann::json::parse(line, nullptr, false);
            EXPECT_FALSE(object.is_discarded()) << line;
            if (object.value("type", "") == "result") {
                results[object.at("check")] = object;
            }
        }
        return results;
    }
    // The names of the checks that failed, crashed or did not end.
    std::set<std::string> Failures() const {
        std::set<std::string> names;
        for (const auto& [name, result] : Results()) {
            const std::string outcome = result.at("result");
            if (outcome != "pass" && outcome != "skipped" && outcome != "waived") {
                names.insert(name);
            }
        }
        return names;
    }
};

// Runs the validator. `defect` is the defect of a broken module, empty for none.
inline ValidatorRun RunValidator(std::vector<std::string> words, const std::string& defect = "") {
    const WorkDirectory directory;
    const UniqueFd output(open((directory / "output").c_str(), O_RDWR | O_CREAT, 0600));
    words.insert(words.begin(), {"/usr/bin/env", "ZU_BROKEN=" + defect, ZU_VALIDATE_FILE});
    ChildProcess validator(words, directory / "errors", -1, output.Get());
    ValidatorRun run;
    run.status = validator.Wait();
    run.output = FileContent(directory / "output");
    run.errors = validator.Errors();
    return run;
}

}  // namespace zumod::testing
