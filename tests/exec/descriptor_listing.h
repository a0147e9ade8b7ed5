/* What a process has open, as text: shared by the tests and the child that they start. */
#ifndef TESTS_EXEC_DESCRIPTOR_LISTING_H
#define TESTS_EXEC_DESCRIPTOR_LISTING_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One line for each open descriptor in ascending order: the number, what it refers to ("pipe" for
   any pipe) and its access mode: "1 /dev/null rw". Cut to what fits. */
void list_descriptors(char* text, size_t size);

#ifdef __cplusplus
}
#endif

#endif
