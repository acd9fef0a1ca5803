// A module that would not load wherever Node itself loads: for the test of
// scripts/check-symbols.js.

int pthread_create(void);
int no_function_of_node(void);

int Own(void) { return pthread_create() + no_function_of_node(); }

// C has no name for this kind of binding. C++ gives it to variables of templates.
__asm__(
    ".data\n"
    ".globl unique\n"
    ".type unique, %gnu_unique_object\n"
    ".size unique, 1\n"
    "unique: .byte 0\n");
