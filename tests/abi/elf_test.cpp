// The shipped libarm.so, as the dynamic linker sees it.

#include <elf.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "ElfFile.h"

namespace {

using Names = std::vector<std::string>;

class Library : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(elf_.isElf()); }

  const ElfFile elf_{bytesOfFile(ARM_BUILD_DIR "/lib/libarm.so")};
};

TEST_F(Library, ExportsTheSixteenCallsWithTheirVersionAndNothingElse) {
  std::set<std::string> exported;
  for (const ElfFile::Symbol& symbol : elf_.symbols()) {
    // The linker's mark of the version node itself.
    if (symbol.absolute && symbol.name == "VERS_1.0") continue;
    if (symbol.defined) exported.insert(symbol.name + symbol.version);
  }
  EXPECT_EQ((std::set<std::string>{
                "arm_init@@VERS_1.0", "arm_getid@@VERS_1.0", "arm_start@@VERS_1.0",
                "arm_update@@VERS_1.0", "arm_stop@@VERS_1.0", "arm_end@@VERS_1.0",
                "w_ArmInit@@VERS_1.0", "w_ArmGetID@@VERS_1.0", "arm_transactionReport@@VERS_1.0",
                "arm_transactionInstanceReport@@VERS_1.0", "arm_completeTransaction@@VERS_1.0",
                "arm_completeTransactionInstance@@VERS_1.0", "arm_associateMetricData@@VERS_1.0",
                "arm_getCorrelatorKey@@VERS_1.0", "SetExpectedCodeset@@VERS_1.0",
                "GetExpectedCodeset@@VERS_1.0"}),
            exported);
}

TEST_F(Library, DefinesOneVersion) {
  EXPECT_EQ((Names{"libarm.so.2", "VERS_1.0"}), elf_.versions());
}

TEST_F(Library, IsNamedWithItsMajorVersion) {
  EXPECT_EQ(Names{"libarm.so.2"}, elf_.texts(DT_SONAME));
}

TEST_F(Library, NeedsOnlyIcuAndTheCLibrary) {
  const Names needed = elf_.texts(DT_NEEDED);
  EXPECT_EQ(2U, needed.size());
  EXPECT_EQ((std::set<std::string>{"libicuuc.so.72", "libc.so.6"}),
            std::set<std::string>(needed.begin(), needed.end()));
}

TEST_F(Library, IsReadOnlyAfterRelocation) {
  EXPECT_EQ(1U, elf_.segments(PT_GNU_RELRO).size());
  ASSERT_EQ(1U, elf_.values(DT_FLAGS).size());
  EXPECT_NE(0U, elf_.values(DT_FLAGS)[0] & DF_BIND_NOW);
  ASSERT_EQ(1U, elf_.values(DT_FLAGS_1).size());
  EXPECT_NE(0U, elf_.values(DT_FLAGS_1)[0] & DF_1_NOW);
}

TEST_F(Library, NeedsNoExecutableStack) {
  ASSERT_EQ(1U, elf_.segments(PT_GNU_STACK).size());
  EXPECT_EQ(0U, elf_.segments(PT_GNU_STACK)[0].p_flags & PF_X);
}

TEST_F(Library, HasNoSegmentThatIsWritableAndExecutable) {
  const std::vector<ElfW(Phdr)> segments = elf_.segments(PT_LOAD);
  EXPECT_LT(1U, segments.size());
  for (const ElfW(Phdr) & segment : segments) {
    EXPECT_NE(ElfW(Word){PF_W | PF_X}, segment.p_flags & (PF_W | PF_X));
  }
}

TEST_F(Library, HasNoTextRelocations) {
  EXPECT_EQ(0U, elf_.values(DT_TEXTREL).size());
  EXPECT_EQ(0U, elf_.values(DT_FLAGS)[0] & DF_TEXTREL);
}

TEST_F(Library, CarriesNoPath) {
  EXPECT_EQ(0U, elf_.values(DT_RPATH).size());
  EXPECT_EQ(0U, elf_.values(DT_RUNPATH).size());
}

TEST_F(Library, RunsAtLoadOnlyTheStartUpGlueAndTheTwoGroupsOfMutexes) {
  // The groups are one entry when the library is optimized as a whole.
  EXPECT_LE(2U, elf_.pointersIn(SHT_INIT_ARRAY));
  EXPECT_GE(3U, elf_.pointersIn(SHT_INIT_ARRAY));
  EXPECT_EQ(0U, elf_.pointersIn(SHT_PREINIT_ARRAY));
}

TEST_F(Library, OnlyTheUnitsOfTheMutexesRunAnythingAtLoadOrUnload) {
  std::map<std::string, size_t> at_load;
  size_t units = 0;
  for (auto& [name, bytes] : membersOfArchive(ARM_BUILD_DIR "/lib/libarm_internal.a")) {
    const ElfFile unit(bytes);
    ASSERT_TRUE(unit.isElf()) << name;
    ++units;
    const size_t entries = unit.pointersIn(SHT_INIT_ARRAY) + unit.pointersIn(SHT_FINI_ARRAY);
    if (entries > 0) at_load[name] = entries;
  }
  EXPECT_LT(30U, units) << "the archive was not read";
  EXPECT_EQ((std::map<std::string, size_t>{{"arm_ipc.cpp.o", 1}, {"libarmutils.cpp.o", 1}}),
            at_load);
}

TEST_F(Library, CannotThrowOrEndItsHost) {
  size_t undefined = 0;
  for (const ElfFile::Symbol& symbol : elf_.symbols()) {
    if (symbol.defined) continue;
    ++undefined;
    EXPECT_NE("_Z", symbol.name.substr(0, 2)) << symbol.name;
    EXPECT_NE("_Unwind", symbol.name.substr(0, 7)) << symbol.name;
    for (const char* name :
         {"__cxa_throw", "__cxa_rethrow", "__gxx_personality_v0", "abort", "exit", "_exit", "_Exit",
          "quick_exit", "__assert_fail", "__stack_chk_fail", "raise", "kill"}) {
      EXPECT_NE(name, symbol.name);
    }
  }
  EXPECT_LT(20U, undefined) << "the table was not read";
}

}  // namespace
