// A firmware image with a symbol table, for the tests of kvx-ta --elf: built by the system's
// compiler, without a C library, linked at the usual addresses of an executable.
extern "C" {

volatile unsigned int g_boot_status = 0x1234abcd;
volatile unsigned char g_table[32] = {1, 2, 3, 4, 5, 6, 7, 8};

void firmware_entry() {
  for (;;) ++g_boot_status;
}
}
