// The command line of zu-module-validate, its reports and exit statuses, and the document that lists the
// checks.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/validate/validator_run.h"

namespace zumod::testing {
namespace {

const std::string kCodec = ZU_BROKEN_DIR "/codec.so";

TEST(ValidatorCommand, RefusesWrongOptionsInOneLineWithStatus2) {
    const struct {
        std::vector<std::string> words;
        const char* line;
    } cases[] = {
        {{}, "zu-module-validate: no FILE given (see --help)\n"},
        {{"list", "x"}, "zu-module-validate: list takes no FILE (see --help)\n"},
        {{"explain"}, "zu-module-validate: explain takes one CHECK (see --help)\n"},
        {{"explain", "x"}, "zu-module-validate: there is no check \"x\" (see --help)\n"},
        {{"--in-process", "x", "y"}, "zu-module-validate: there is no check \"x\" (see --help)\n"},
        {{"--only", "(", "x"},
         "zu-module-validate: --only: \"(\" is not a regular expression (see --help)\n"},
        {{"--only", "no.such.check", "x"},
         "zu-module-validate: --only and --skip leave no check (see --help)\n"},
        {{"--reproduce", "desc.name", "x"},
         "zu-module-validate: --reproduce takes CHECK:SEED (see --help)\n"},
        {{"--reproduce", "x:1", "x"},
         "zu-module-validate: --reproduce: there is no check \"x\" (see --help)\n"},
        {{"/nowhere/x.so"}, "zu-module-validate: /nowhere/x.so: No such file or directory\n"},
    };
    for (const auto& wrong : cases) {
        const ValidatorRun run = RunValidator(wrong.words);
        EXPECT_EQ(run.errors, wrong.line);
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(run.status, 2);
    }
}

TEST(ValidatorCommand, ExplainsACheck) {
    const ValidatorRun run = RunValidator({"explain", "create.null-policy"});
    EXPECT_EQ(run.output,
              "create.null-policy\n"
              "A module that passes refuses a null policy.\n"
              "For:        camera and codec modules\n"
              "Severity:   must\n"
              "Written in: descriptor.h: CreateFunction\n"
              "Run alone:  zu-module-validate --reproduce create.null-policy:SEED FILE\n"
              "In a debugger: gdb --args zu-module-validate --in-process create.null-policy FILE\n");
    EXPECT_EQ(run.status, 0);
}

TEST(ValidatorCommand, ReportsAFailureForPeople) {
    const ValidatorRun run =
        RunValidator({"--only", "^desc\\.version$", "--seed", "7", kCodec}, "desc.version");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(
        run.output.find("fail    desc.version\n"
                        "    a module must: has a version whose top 16 bits are not 0\n"
                        "    expected:   a major version, in the top 16 bits, that is not 0\n"
                        "    got:        5\n"
                        "    written in: descriptor.h: ZUModDescriptor::version\n"
                        "    run alone:  zu-module-validate --kind codec --reproduce desc.version:7 -- '" +
                        kCodec + "'\n"),
        std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find(": 0 passed, 1 failed, 0 skipped, 0 waived\n"), std::string::npos)
        << run.output;
}

TEST(ValidatorCommand, ShowsTheStackOfACrash) {
    const ValidatorRun run =
        RunValidator({"--only", "^create\\.any-policies$", kCodec}, "create.any-policies");
    EXPECT_NE(run.output.find("crash   create.any-policies\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("    got:        SIGSEGV, a wrong address\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("    | stack:\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("/broken/codec.so("), std::string::npos) << run.output;
}

TEST(ValidatorCommand, ShowsTheStacksOfACheckThatDoesNotEnd) {
    const ValidatorRun run =
        RunValidator({"--timeout", "1", "--only", "^log\\.throws$", kCodec}, "log.throws/lock");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("hang    log.throws\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("    | stack of the main thread:\n"), std::string::npos) << run.output;
    // The thread that waits for the lock.
    const size_t other = run.output.find("    | stack of another thread:\n");
    ASSERT_NE(other, std::string::npos) << run.output;
    EXPECT_NE(run.output.find("/broken/codec.so(", other), std::string::npos) << run.output;
}

TEST(ValidatorCommand, CountsOnlyFailuresOfTheSeverityThatIsAskedFor) {
    EXPECT_EQ(RunValidator({"--only", "^desc\\.detach$", kCodec}, "desc.detach").status, 1);
    EXPECT_EQ(RunValidator({"--fail-on", "must", "--only", "^desc\\.", kCodec}, "desc.detach").status, 0);
}

TEST(ValidatorCommand, HasStatus2IfNothingCouldBeChecked) {
    const ValidatorRun run = RunValidator({"--only", "^entry\\.", ZU_BROKEN_DIR "/undefined.so"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.output.find("skipped entry.descriptor: the module does not load\n"), std::string::npos)
        << run.output;
}

TEST(ValidatorCommand, WaivesFailuresOfTheFile) {
    const WorkDirectory directory;
    std::ofstream(directory / "waivers") << "desc.detach 9999-12-31 accepted\n";
    const ValidatorRun run = RunValidator(
        {"--waivers", directory / "waivers", "--only", "^desc\\.detach$", kCodec}, "desc.detach");
    EXPECT_NE(run.output.find("waived  desc.detach: until 9999-12-31: accepted\n"), std::string::npos)
        << run.output;
    EXPECT_EQ(run.status, 0);
}

TEST(ValidatorCommand, WritesJunitsForm) {
    const WorkDirectory directory;
    const std::string file = directory / "results.xml";
    const ValidatorRun run =
        RunValidator({"--junit", file, "--only", "^desc\\.(version|name)$", kCodec}, "desc.version");
    EXPECT_EQ(run.status, 1);
    const std::string content = FileContent(file);
    EXPECT_EQ(
        content.find("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n  <testsuite name=\"" +
                     kCodec + "\" tests=\"2\" failures=\"1\" skipped=\"0\">\n    <testcase classname=\"" +
                     kCodec + "\" name=\"desc.name\" time=\""),
        0U)
        << content;
    EXPECT_NE(content.find(
                  "><failure type=\"fail\" message=\"expected: a major version, in the top 16 bits, that is "
                  "not 0; got: 5\"/></testcase>\n  </testsuite>\n</testsuites>\n"),
              std::string::npos)
        << content;
}

TEST(ValidatorCommand, RunsACheckInItsOwnProcessForADebugger) {
    const ValidatorRun run = RunValidator({"--in-process", "desc.version", kCodec}, "desc.version");
    EXPECT_EQ(run.output, "fail\ta major version, in the top 16 bits, that is not 0\t5\n");
    EXPECT_EQ(run.status, 1);
}

}  // namespace
}  // namespace zumod::testing
