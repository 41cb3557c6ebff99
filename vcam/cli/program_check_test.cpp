#include "vcam/cli/program_check.h"

#include <elf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

namespace zumod::vcam {
namespace {

const ProgramUser kMe{geteuid(), getegid()};

// An executable file in a directory of its own, which goes away with it.
class ProgramFile {
public:
    explicit ProgramFile(const std::string& contents) {
        std::ofstream(m_path, std::ios::binary) << contents;
        chmod(m_path.c_str(), 0755);
    }
    ~ProgramFile() {
        unlink(m_path.c_str());
        rmdir(m_directory.c_str());
    }
    const std::string& Path() const { return m_path; }
    const std::string& Directory() const { return m_directory; }
    void SetMode(mode_t mode) const { ASSERT_EQ(chmod(m_path.c_str(), mode), 0); }
    std::string Why(ProgramUser starter = kMe) const { return WhyWithoutCameras(m_path, starter); }

private:
    std::string m_template = ::testing::TempDir() + "m_zu_vcam_program.XXXXXX";
    std::string m_directory = mkdtemp(m_template.data());
    std::string m_path = m_directory + "/tool";
};

// The beginning of a program with one program header of this type.
std::string Program(Elf64_Word header_type, unsigned char word_size = ELFCLASS64) {
    Elf64_Ehdr program{};
    std::memcpy(program.e_ident, ELFMAG, SELFMAG);
    program.e_ident[EI_CLASS] = word_size;
    program.e_phoff = sizeof program;
    program.e_phnum = 1;
    program.e_phentsize = sizeof(Elf64_Phdr);
    Elf64_Phdr header{};
    header.p_type = header_type;
    std::string bytes(sizeof program + sizeof header, 0);
    std::memcpy(bytes.data(), &program, sizeof program);
    std::memcpy(bytes.data() + sizeof program, &header, sizeof header);
    return bytes;
}

TEST(ProgramCheck, FindsNothingWrongWithADynamicProgram) {
    EXPECT_EQ(ProgramFile(Program(PT_INTERP)).Why(), "");
    EXPECT_EQ(WhyWithoutCameras("/proc/self/exe", kMe), "");
}

TEST(ProgramCheck, SaysThatAProgramIsStatic) {
    const ProgramFile file(Program(PT_LOAD));
    EXPECT_EQ(file.Why(), "\"" + file.Path() + "\" is statically linked");
}

TEST(ProgramCheck, SaysThatAProgramHasAnotherWordSize) {
    const ProgramFile file(Program(PT_INTERP, ELFCLASS32));
    EXPECT_EQ(file.Why(), "\"" + file.Path() + "\" is a 32-bit program");
}

TEST(ProgramCheck, SaysThatAProgramGainsRights) {
    const ProgramFile file(Program(PT_INTERP));
    const std::string gains =
        "\"" + file.Path() + "\" runs with more rights than its user (set-uid, set-gid or capabilities)";
    struct stat status {};
    ASSERT_EQ(stat(file.Path().c_str(), &status), 0);
    const ProgramUser owner{status.st_uid, status.st_gid};
    const ProgramUser other{status.st_uid + 1, status.st_gid};
    const ProgramUser other_group{status.st_uid, status.st_gid + 1};
    file.SetMode(04755);
    EXPECT_EQ(file.Why(other), gains);
    EXPECT_EQ(file.Why(owner), "") << "it already runs as its owner";
    file.SetMode(02755);
    EXPECT_EQ(file.Why(other_group), gains);
    EXPECT_EQ(file.Why(owner), "");
}

TEST(ProgramCheck, FollowsAScriptToItsInterpreter) {
    const ProgramFile interpreter(Program(PT_LOAD));
    const ProgramFile script("#! " + interpreter.Path() + " -x\necho\n");
    EXPECT_EQ(script.Why(), "\"" + interpreter.Path() + "\" is statically linked");
}

TEST(ProgramCheck, SaysNothingAboutWhatItCannotRead) {
    EXPECT_EQ(WhyWithoutCameras("/nonexistent", kMe), "");
    EXPECT_EQ(ProgramFile("").Why(), "");
    EXPECT_EQ(ProgramFile("text").Why(), "");
    EXPECT_EQ(ProgramFile(Program(PT_LOAD).substr(0, 80)).Why(), "") << "its headers are cut off";
}

TEST(ProgramCheck, EndsAtAScriptThatInterpretsItself) {
    const ProgramFile script("");
    std::ofstream(script.Path()) << "#!" << script.Path() << "\n";
    EXPECT_EQ(script.Why(), "");
}

TEST(ProgramCheck, FindsAProgramAsTheShellDoes) {
    const ProgramFile file("#!/bin/sh\n");
    const std::string before = std::getenv("PATH");
    setenv("PATH", ("/nonexistent:" + file.Directory()).c_str(), 1);
    EXPECT_EQ(FindProgram("tool"), file.Path());
    EXPECT_EQ(FindProgram("no-such-tool"), "");
    EXPECT_EQ(FindProgram("./tool"), "./tool");
    file.SetMode(0644);
    EXPECT_EQ(FindProgram("tool"), "") << "it is not executable";
    setenv("PATH", before.c_str(), 1);
}

}  // namespace
}  // namespace zumod::vcam
