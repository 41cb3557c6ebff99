#include "common/landlock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "common/unique_fd.h"

namespace zumod {
namespace {

// The kernel's structures, in the form of version 6. An older kernel accepts the larger size if what it does
// not know is 0. Declared here because the headers of Debian 12 end at version 2.
struct RulesetAttributes {
    uint64_t handled_files = 0;
    uint64_t handled_network = 0;
    uint64_t scoped = 0;
};
struct [[gnu::packed]] PathAttributes {
    uint64_t rights = 0;
    int32_t parent = -1;
};
static_assert(sizeof(RulesetAttributes) == 24 && sizeof(PathAttributes) == 12);

constexpr uint32_t kCreateRulesetVersion = 1;
constexpr int kRulePathBeneath = 1;

constexpr uint64_t kBindAndConnectTcp = 3;
constexpr uint64_t kScopeAbstractSockets = 1;
constexpr uint64_t kScopeSignals = 2;

// The rights that also make sense for a file that is no directory: execute, write, read, truncate, ioctl.
constexpr uint64_t kFileRights =
    1U | kLandlockWriteFile | kLandlockReadFile | kLandlockTruncate | kLandlockDeviceIoctl;

// Every right on files that a version can take away: 13 bits in the first, then one more where noted.
uint64_t FileRightsOf(int version) {
    constexpr uint64_t kFirst = (1U << 13U) - 1;
    constexpr uint64_t kReparent = 1U << 13U;
    return kFirst | (version >= 2 ? kReparent : 0) | (version >= 3 ? uint64_t{kLandlockTruncate} : 0) |
           (version >= 5 ? uint64_t{kLandlockDeviceIoctl} : 0);
}

Expected<void> AddRule(int ruleset, const LandlockRule& rule, uint64_t handled) {
    const UniqueFd parent(open(rule.path.c_str(), O_PATH | O_CLOEXEC));
    if (!parent && errno != EMFILE && errno != ENFILE && errno != ENOMEM) {
        return {};  // what does not exist, or cannot be reached, needs no rule
    }
    struct stat status {};
    if (!parent || fstat(parent.Get(), &status) != 0) {
        return Fail("no Landlock rule for " + rule.path + ": " + ErrnoText(errno));
    }
    const uint64_t rights = rule.rights & handled & (S_ISDIR(status.st_mode) ? handled : kFileRights);
    const PathAttributes attributes{rights, parent.Get()};
    if (syscall(SYS_landlock_add_rule, ruleset, kRulePathBeneath, &attributes, 0) != 0) {
        return Fail("no Landlock rule for " + rule.path + ": " + ErrnoText(errno));
    }
    return {};
}

}  // namespace

Expected<int> LandlockVersion() {
    const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, kCreateRulesetVersion);
    if (version < 0) {
        return Fail(ErrnoText(errno));
    }
    return static_cast<int>(version);
}

Expected<void> RestrictByLandlock(int version, const std::vector<LandlockRule>& rules, bool may_connect,
                                  bool may_signal) {
    RulesetAttributes attributes;
    attributes.handled_files = FileRightsOf(version);
    if (version >= 4) {
        attributes.handled_network = kBindAndConnectTcp;
    }
    if (version >= 6) {
        attributes.scoped = (may_connect ? 0 : kScopeAbstractSockets) | (may_signal ? 0 : kScopeSignals);
    }
    const UniqueFd ruleset(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
    if (!ruleset) {
        return Fail("no Landlock rules: " + ErrnoText(errno));
    }
    for (const LandlockRule& rule : rules) {
        if (auto added = AddRule(ruleset.Get(), rule, attributes.handled_files); !added) {
            return added;
        }
    }
    if (syscall(SYS_landlock_restrict_self, ruleset.Get(), 0) != 0) {
        return Fail("Landlock is not put in force: " + ErrnoText(errno));
    }
    return {};
}

}  // namespace zumod
