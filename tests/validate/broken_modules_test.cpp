// Every check of zu-module-validate fails for a module that is broken in what it checks, and for no other.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tests/validate/validator_run.h"

namespace zumod::testing {
namespace {

using Names = std::set<std::string>;

struct Defect {
    const char* module;
    // As in broken/module.cpp; "" for a module whose file has the defect.
    const char* defect;
    Names failing;
};

void PrintTo(const Defect& defect, std::ostream* out) {
    *out << defect.module << ' ' << defect.defect;
}

std::string BrokenFile(const std::string& module) {
    return std::string(ZU_BROKEN_DIR) + "/" + module + ".so";
}

// A defect that has the name of the one check that it fails.
Defect Named(const char* module, const char* defect) {
    const std::string name = defect;
    return {module, defect, {name.substr(0, name.find('/'))}};
}

const std::vector<Defect>& FileDefects() {
    static const std::vector<Defect> defects = {
        {"export", "", {"elf.one-export"}},
        {"unique", "", {"elf.one-export", "elf.no-unique-symbol"}},
        {"text", "", {"elf.no-text-relocations"}},
        {"stack", "", {"elf.no-executable-stack"}},
        {"lazy", "", {"elf.read-only-relocations"}},
        {"run_path", "", {"elf.no-run-path"}},
        {"undefined", "", {"load.resolves-now"}},
    };
    return defects;
}

const std::vector<Defect>& CodecDefects() {
    static const std::vector<Defect> defects = {
        Named("codec", "load.no-side-effects/thread"),
        Named("codec", "load.no-side-effects/descriptor"),
        Named("codec", "load.no-side-effects/output"),
        Named("codec", "load.no-side-effects/signal"),
        Named("codec", "load.no-side-effects/umask"),
        Named("codec", "load.no-side-effects/locale"),
        Named("codec", "load.no-side-effects/directory"),
        Named("codec", "load.no-side-effects/environment"),
        Named("codec", "load.many-times"),
        Named("codec", "unload.harmless"),
        Named("codec", "entry.descriptor"),
        {"codec", "entry.same-descriptor", {"entry.same-descriptor", "entry.any-thread"}},
        Named("codec", "entry.any-thread"),
        Named("codec", "desc.name"),
        Named("codec", "desc.version"),
        Named("codec", "desc.functions"),
        Named("codec", "desc.detach"),
        Named("codec", "desc.build-stamp"),
        Named("codec", "desc.constant"),
        Named("codec", "attach.returns-1"),
        Named("codec", "attach.null"),
        Named("codec", "attach.replaces"),
        Named("codec", "attach.every-time"),
        Named("codec", "detach.silent"),
        Named("codec", "log.level"),
        Named("codec", "log.text"),
        Named("codec", "log.from-inside"),
        Named("codec", "log.throws/lock"),
        Named("codec", "log.throws/terminate"),
        Named("codec", "env.released"),
        Named("codec", "env.any-kind"),
        Named("codec", "create.null-policy"),
        Named("codec", "create.null-out"),
        // A name of another kind reads as an empty one.
        {"codec", "create.no-name", {"create.no-name", "create.wrong-kinds"}},
        Named("codec", "create.unknown-name"),
        Named("codec", "create.any-case"),
        Named("codec", "create.wrong-major"),
        Named("codec", "create.any-minor"),
        Named("codec", "create.wrong-kinds"),
        Named("codec", "create.slot-unchanged"),
        Named("codec", "create.one-reference"),
        Named("codec", "create.releases-values"),
        Named("codec", "create.releases-policy"),
        Named("codec", "create.many-objects"),
        Named("codec", "create.leaks-nothing"),
        Named("codec", "create.any-policies"),
        Named("codec", "ref.values"),
        Named("codec", "ref.threads"),
        {"codec", "slot.code", {"slot.code", "slot.reserved"}},
        Named("codec", "slot.reserved"),
        Named("codec", "query.unknown"),
        Named("codec", "query.counted"),
        Named("codec", "prop.unknown"),
        Named("codec", "prop.released"),
        Named("codec", "prop.null"),
        Named("codec", "enc.encodes"),
        Named("codec", "enc.decodes-alone"),
        Named("codec", "enc.follows-size"),
        Named("codec", "enc.two"),
        Named("codec", "enc.any-thread"),
        Named("codec", "enc.short-output"),
        Named("codec", "enc.reads-inside"),
        Named("codec", "enc.any-size"),
        Named("codec", "enc.input-not-kept"),
        Named("codec", "enc.args-released"),
        Named("codec", "enc.no-format"),
        Named("codec", "enc.one-per-picture"),
    };
    return defects;
}

// What the codec of the examples, which takes one format only, does not pass; and the checks that load
// libavcodec, which only a defect of an encoder needs.
constexpr char kOneFormat[] = "^enc\\.all-formats$";
constexpr char kOneFormatOrSlow[] = "^enc\\.(all-formats|decodes-alone|follows-size|two)$";

class BrokenModule : public ::testing::TestWithParam<Defect> {};

TEST_P(BrokenModule, FailsTheChecksOfItsDefectAndNoOther) {
    const std::string defect = GetParam().defect;
    const bool of_encoder = defect.rfind("enc.", 0) == 0;
    const ValidatorRun run =
        RunValidator({"--json", "--fail-on", "note", "--timeout", "5", "--kind", "codec", "--skip",
                      of_encoder ? kOneFormat : kOneFormatOrSlow, BrokenFile(GetParam().module)},
                     defect);
    EXPECT_EQ(run.Failures(), GetParam().failing) << run.output << run.errors;
    EXPECT_EQ(run.status, 1);
}

std::string TestName(const ::testing::TestParamInfo<Defect>& info) {
    std::string name = std::string(info.param.module) + "_" + info.param.defect;
    std::ranges::replace_if(
        name, [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(File, BrokenModule, ::testing::ValuesIn(FileDefects()), TestName);
INSTANTIATE_TEST_SUITE_P(Codec, BrokenModule, ::testing::ValuesIn(CodecDefects()), TestName);

TEST(BrokenModules, FailEveryCheckThatThereIs) {
    Names failing = {"enc.all-formats"};
    for (const auto* const defects : {&FileDefects(), &CodecDefects()}) {
        for (const Defect& defect : *defects) {
            failing.insert(defect.failing.begin(), defect.failing.end());
        }
    }
    Names all;
    std::istringstream lines(RunValidator({"list", "--json"}).output);
    for (std::string line; std::getline(lines, line);) {
        all.insert(nlohmann::json::parse(line).at("check"));
    }
    EXPECT_EQ(failing, all);
}

TEST(GoodModule, PassesEveryCheckButThatOfTheFormatsThatItLacks) {
    const ValidatorRun run = RunValidator({"--json", BrokenFile("codec")});
    EXPECT_EQ(run.Failures(), Names{"enc.all-formats"}) << run.output << run.errors;
    EXPECT_EQ(run.status, 0);
}

class OurModule : public ::testing::TestWithParam<const char*> {};

TEST_P(OurModule, PassesEveryCheck) {
    const ValidatorRun run = RunValidator({"--json", "--fail-on", "note", GetParam()});
    EXPECT_EQ(run.Failures(), Names()) << run.output << run.errors;
    EXPECT_EQ(run.status, 0);
}

INSTANTIATE_TEST_SUITE_P(All, OurModule,
                         ::testing::Values(ZU_MODULE_DIR "/zu-client-camera.so",
                                           ZU_MODULE_DIR "/zu-codec.so"),
                         [](const auto& module) { return module.index == 0 ? "Camera" : "Codec"; });

}  // namespace
}  // namespace zumod::testing
