// A program that others start: makes every call a few times, with the id given; its exit status is
// the number of wrong answers.

#include <cstdlib>

#include "fork_calls.h"

int main(int argc, char** argv) {
  if (argc != 2) return 99;
  const int id = std::atoi(argv[1]);
  int wrong = 0;
  for (int i = 0; i < 3; ++i) wrong += armtest::wrongAnswersOfEveryCall(id + i);
  return wrong;
}
