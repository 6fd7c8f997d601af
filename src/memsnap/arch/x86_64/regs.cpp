// x86_64: ELF64 cores for EM_X86_64.  General registers in the order of
// user_regs_struct, the FXSAVE area as NT_PRFPREG and the whole XSAVE area
// (AVX and later state; its size depends on the CPU) as NT_X86_XSTATE.
#include "memsnap.h"

#include <elf.h>
#include <sys/user.h>

static_assert(sizeof(elf_gregset_t) == sizeof(user_regs_struct), "NT_PRSTATUS register block");
static_assert(sizeof(elf_prstatus) == 336, "the prstatus debuggers expect of x86_64");
static_assert(sizeof(elf_prpsinfo) == 136, "the prpsinfo debuggers expect of x86_64");

const unsigned char snap_arch_class = ELFCLASS64;
const uint16_t snap_arch_machine = EM_X86_64;
const snap_regset snap_arch_regsets[] = {
    {NT_PRFPREG, "CORE", sizeof(user_fpregs_struct)},
    {NT_X86_XSTATE, "LINUX", 32768},
};
const int snap_arch_nregsets = sizeof snap_arch_regsets / sizeof snap_arch_regsets[0];

uint32_t snap_arch_eflags(uint32_t)
{
    return 0;
}
