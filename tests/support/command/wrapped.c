/* Uses popen, pclose and system as a service in C does that is linked so that these are the
 * library's. Exits with the number of the first step that fails; 0 if none does. */
/* SPDX-License-Identifier: Apache-2.0 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void) {
  char line[16] = "";
  FILE *stream = popen("echo text; exit 3", "r");
  if (stream == NULL || fgets(line, sizeof line, stream) == NULL) return 1;
  if (strcmp(line, "text\n") != 0) return 2;
  if (pclose(stream) != 3 << 8) return 3;
  if (system("exit 4") != 4 << 8) return 4;

  /* What the system's own functions would do otherwise. */
  if (popen("true", "re") != NULL) return 5;
  if (pclose(stdin) != -1) return 6;
  if (system(NULL) != -22) return 7;
  if (system("true; true") != -1) return 8;
  return 0;
}
