// The instructions of the shipped libarm.so: none of them needs the host's floating-point unit, in
// which a host may have traps on, an exception pending, or registers that are its own.

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <string>

namespace {

/// Functions that may use the unit all the same.
const std::set<std::string> ALLOWED = {};

/// What x87 and MMX share, and instructions that any exception can come of.  64-bit code copies
/// with SSE's registers, 32-bit code does not even do that.
bool usesTheUnit(const std::string& instruction) {
  static const std::regex UNIT(
      R"(^(f[a-z0-9]+|emms|ldmxcsr|stmxcsr|x(save|rstor)[a-z0-9]*)\b|%(st|mm[0-7])\b)");
  static const std::regex ARITHMETIC(
      R"(^v?((add|sub|mul|div|sqrt|min|max|round|rcp|rsqrt|cmp[a-z]*|u?comi)[sp][sd]|cvt[a-z0-9]+|fn?m(add|sub)[a-z0-9]+)\b)");
  if (std::regex_search(instruction, UNIT)) return true;
#if defined(__LP64__)
  return std::regex_search(instruction, ARITHMETIC);
#else
  static const std::regex VECTOR(R"(%[xyz]mm)");
  return std::regex_search(instruction, ARITHMETIC) || std::regex_search(instruction, VECTOR);
#endif
}

/// Calls back with the function and the instruction for each line of a disassembly.
template <typename Look>
void disassemble(const std::string& library, Look&& look) {
  std::FILE* output = popen(("objdump -d --no-show-raw-insn " + library).c_str(), "r");
  ASSERT_NE(nullptr, output);
  static const std::regex FUNCTION(R"(^[0-9a-f]+ <(.*)>:\n$)");
  static const std::regex INSTRUCTION(R"(^ *[0-9a-f]+:\t(.*[^\s])\s*$)");
  std::string function;
  std::smatch parts;
  char buffer[4096];
  while (std::fgets(buffer, sizeof buffer, output) != nullptr) {
    const std::string line = buffer;
    if (std::regex_match(line, parts, FUNCTION)) function = parts[1];
    if (std::regex_match(line, parts, INSTRUCTION)) look(function, parts[1].str());
  }
  EXPECT_EQ(0, pclose(output)) << "objdump of the package binutils";
}

TEST(FloatingPoint, IsUsedByNoFunction) {
  size_t instructions = 0;
  bool sees_calls = false;
  disassemble(ARM_BUILD_DIR "/lib/libarm.so",
              [&](const std::string& function, const std::string& instruction) {
                ++instructions;
                sees_calls = sees_calls || function.rfind("arm_start", 0) == 0;
                if (ALLOWED.count(function) != 0) return;
                EXPECT_FALSE(usesTheUnit(instruction)) << function << ": " << instruction;
              });
  EXPECT_LT(5000U, instructions);
  EXPECT_TRUE(sees_calls);
}

TEST(FloatingPoint, InstructionsAreTold) {
  for (const char* one :
       {"fildll 0x24(%esp)", "fistpll (%ecx)", "fld1", "faddp  %st,%st(1)", "fnstenv (%eax)",
        "fxsave (%eax)", "emms", "movq   (%eax),%mm0", "movd   %mm7,%eax", "ldmxcsr 0x4(%esp)",
        "cvtsi2sd %eax,%xmm0", "mulsd  %xmm1,%xmm0", "vaddpd %ymm0,%ymm1,%ymm2",
        "comisd %xmm0,%xmm1", "cmpltsd %xmm0,%xmm1", "xsave  (%eax)"}) {
    EXPECT_TRUE(usesTheUnit(one)) << one;
  }
  for (const char* one : {"mov    %eax,%ebx", "lock cmpxchg8b 0x0(%ebp)", "cmpsl  %es:(%edi)",
                          "sub    $0x1c,%esp", "add    %eax,(%eax)", "call   1050 <strftime@plt>",
                          "mov    %gs:0x14,%eax", "rep stos %al,%es:(%edi)", "jmp    7e <f1+0x2>",
                          "divl   0x8(%esp)", "movsbl (%eax),%eax", "xor    %eax,%eax"}) {
    EXPECT_FALSE(usesTheUnit(one)) << one;
  }
  // Copies.
#if defined(__LP64__)
  EXPECT_FALSE(usesTheUnit("movdqu (%rax),%xmm0"));
#else
  EXPECT_TRUE(usesTheUnit("movdqu (%eax),%xmm0"));
#endif
}

}  // namespace
