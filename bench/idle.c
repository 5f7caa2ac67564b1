/* A program that waits for the end of its input: linked with and without the library. */

#include <stdio.h>

int main(void) {
  while (getchar() != EOF) {
  }
  return 0;
}
