#include "diag/CkesErrorStack.h"

#include <gtest/gtest.h>

#include <string>

namespace armtest {
namespace {

/// Distinct one-character texts; they outlive every stack.
const char* text(int number) {
  static char texts[100][2];
  texts[number][0] = static_cast<char>('!' + number);
  return texts[number];
}

/// A dump into a buffer of exactly that many bytes, with a guard behind it.
std::string dump(CkesErrorStack& stack, int size) {
  std::string buffer(static_cast<size_t>(size) + 1, '?');
  stack.GetStackDump(buffer.data(), size);
  EXPECT_EQ('?', buffer.back());
  return buffer.c_str();
}

/// "error" and then so many names.
CkesErrorStack stackWith(int names) {
  CkesErrorStack stack;
  stack.SetErrorCode(-5, "error");
  for (int i = 0; i < names; ++i) (void)stack.AddFunction(text(i));
  return stack;
}

TEST(CkesErrorStack, NewStackHasNoErrorAndOneText) {
  CkesErrorStack stack;
  EXPECT_EQ(0, stack.GetErrorCode());
  EXPECT_EQ("Error code not set.\n", dump(stack, 100));
}

TEST(CkesErrorStack, ErrorTextReplacesTheTextOfANewStack) {
  CkesErrorStack stack;
  stack.SetErrorCode(-5, "error");
  EXPECT_EQ(-5, stack.GetErrorCode());
  EXPECT_EQ("error\n", dump(stack, 100));
}

TEST(CkesErrorStack, NamesFollowTheErrorText) {
  CkesErrorStack stack = stackWith(0);
  EXPECT_EQ(0, stack.AddFunction("f"));
  EXPECT_EQ(0, stack.AddFunction("g"));
  EXPECT_EQ("error\nf\ng\n", dump(stack, 100));
}

TEST(CkesErrorStack, ErrorTextReplacesTheNewestNameAndDropsTheRest) {
  CkesErrorStack stack = stackWith(3);
  stack.SetErrorCode(-6, "next error");
  EXPECT_EQ(-6, stack.GetErrorCode());
  EXPECT_EQ("next error\n", dump(stack, 100));
}

TEST(CkesErrorStack, ErrorTextTakesTheNewestSlotSoThatATrailFromTheLastOneWrapsAtOnce) {
  CkesErrorStack stack = stackWith(49);
  stack.SetErrorCode(-6, "next");
  EXPECT_EQ(0, stack.AddFunction("f"));
  EXPECT_EQ(2, stack.GetStackSize());
  EXPECT_EQ("next\nf\n!\n\"\n", dump(stack, 13));
}

TEST(CkesErrorStack, TextsAreNotCopied) {
  char error[] = "error";
  CkesErrorStack stack;
  stack.SetErrorCode(-5, error);
  EXPECT_EQ(error, stack.GetFirstFunction());
}

TEST(CkesErrorStack, FortyNineNamesFillTheTrail) {
  CkesErrorStack stack = stackWith(48);
  EXPECT_EQ(0, stack.AddFunction("last"));
  EXPECT_STREQ("error", stack.GetFirstFunction());
}

TEST(CkesErrorStack, FiftiethNameDropsTheErrorTextAndGivesMinus202) {
  CkesErrorStack stack = stackWith(49);
  EXPECT_EQ(-202, stack.AddFunction("fiftieth"));
  EXPECT_STREQ(text(0), stack.GetFirstFunction());
}

TEST(CkesErrorStack, FullTrailGoesOnDroppingItsOldestEntry) {
  CkesErrorStack stack = stackWith(50);
  EXPECT_EQ(-202, stack.AddFunction("f"));
  EXPECT_EQ(-202, stack.AddFunction("g"));
  EXPECT_STREQ(text(2), stack.GetFirstFunction());
}

TEST(CkesErrorStack, SizeOfASingleEntryIs51) {
  CkesErrorStack stack;
  EXPECT_EQ(51, stack.GetStackSize());
  stack.SetErrorCode(-5, "error");
  EXPECT_EQ(51, stack.GetStackSize());
}

TEST(CkesErrorStack, SizeOfSeveralEntriesIsTheirNumber) {
  EXPECT_EQ(2, stackWith(1).GetStackSize());
  EXPECT_EQ(50, stackWith(49).GetStackSize());
}

TEST(CkesErrorStack, SizeOfAFullWrappedTrailIs50) {
  EXPECT_EQ(50, stackWith(50).GetStackSize());
  EXPECT_EQ(50, stackWith(75).GetStackSize());
}

TEST(CkesErrorStack, IterationEndsWithNullAndBeginsAgainBehindTheFirstEntry) {
  CkesErrorStack stack = stackWith(2);
  EXPECT_STREQ("error", stack.GetFirstFunction());
  EXPECT_STREQ(text(0), stack.GetNextFunction());
  EXPECT_STREQ(text(1), stack.GetNextFunction());
  EXPECT_EQ(nullptr, stack.GetNextFunction());
  EXPECT_STREQ(text(0), stack.GetNextFunction());
}

TEST(CkesErrorStack, IterationOfAWrappedTrailHasNoEnd) {
  CkesErrorStack stack = stackWith(50);
  const char* first = stack.GetFirstFunction();
  for (int round = 0; round < 3; ++round) {
    for (int i = 1; i < 50; ++i) ASSERT_STREQ(text(i), stack.GetNextFunction());
    ASSERT_EQ(first, stack.GetNextFunction());
  }
}

// No threads in here, and millions of watched steps take too long.
#ifndef __SANITIZE_THREAD__
TEST(CkesErrorStack, EndlessIterationSurvivesManySteps) {
  CkesErrorStack stack = stackWith(50);
  const char* first = stack.GetFirstFunction();
  const char* entry = first;
  for (int i = 0; i < 50000050; ++i) entry = stack.GetNextFunction();
  EXPECT_EQ(first, entry);
}
#endif

TEST(CkesErrorStack, DumpOfAWrappedTrailRepeatsWholeEntriesUntilTheBufferIsFull) {
  CkesErrorStack stack = stackWith(50);
  std::string round;
  for (int i = 0; i < 50; ++i) round += std::string(text(i)) + "\n";
  const std::string two_rounds_and_one = round + round + text(0) + "\n";
  EXPECT_EQ(two_rounds_and_one, dump(stack, 203));
  EXPECT_EQ(two_rounds_and_one, dump(stack, 204));
}

TEST(CkesErrorStack, DumpIntoFiveBytesOfALongerEntryIsEmpty) {
  CkesErrorStack stack;
  EXPECT_EQ("", dump(stack, 5));
}

TEST(CkesErrorStack, DumpIntoOneByteIsEmpty) {
  CkesErrorStack stack;
  EXPECT_EQ("", dump(stack, 1));
}

TEST(CkesErrorStack, DumpIntoNoBytesWritesNothing) {
  CkesErrorStack stack;
  char buffer[] = "?";
  stack.GetStackDump(buffer, 0);
  EXPECT_EQ('?', buffer[0]);
  stack.GetStackDump(buffer, -1);
  EXPECT_EQ('?', buffer[0]);
}

TEST(CkesErrorStack, DumpIntoNullWritesNothingAndStartsTheIteration) {
  CkesErrorStack stack = stackWith(2);
  stack.GetStackDump(nullptr, 100);
  EXPECT_STREQ(text(0), stack.GetNextFunction());
}

TEST(CkesErrorStack, EntryFitsWithItsLineFeedAndTheTerminator) {
  CkesErrorStack stack = stackWith(0);
  EXPECT_EQ("", dump(stack, 6));
  EXPECT_EQ("error\n", dump(stack, 7));
}

TEST(CkesErrorStack, EntryThatDoesNotFitEndsTheDump) {
  CkesErrorStack stack = stackWith(0);
  (void)stack.AddFunction("much too long");
  (void)stack.AddFunction("f");
  EXPECT_EQ("error\n", dump(stack, 12));
}

TEST(CkesErrorStack, CopyIsIndependent) {
  CkesErrorStack stack = stackWith(1);
  CkesErrorStack copy = stack;
  (void)stack.AddFunction("later");
  EXPECT_EQ(-5, copy.GetErrorCode());
  EXPECT_EQ("error\n!\n", dump(copy, 100));
}

}  // namespace
}  // namespace armtest
