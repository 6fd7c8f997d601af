// MIPS32 o32: ELF32 cores for EM_MIPS.  General registers in the kernel's
// core layout (six words of padding, r0-r31, lo, hi, epc, badvaddr, status,
// cause, one spare word), the 32 floating-point registers and the FCSR as
// NT_PRFPREG.  e_flags are those of the program, so that a debugger picks
// the program's ABI and ISA for the core as well.
#include "memsnap.h"

#include <elf.h>

static_assert(ELF_NGREG == 45 && sizeof(elf_greg_t) == 4, "o32 NT_PRSTATUS register block");
static_assert(sizeof(elf_fpregset_t) == 33 * 8, "o32 NT_PRFPREG block");
static_assert(sizeof(elf_prstatus) == 256, "the prstatus debuggers expect of o32");
static_assert(sizeof(elf_prpsinfo) == 128, "the prpsinfo debuggers expect of o32");

const unsigned char snap_arch_class = ELFCLASS32;
const uint16_t snap_arch_machine = EM_MIPS;
const snap_regset snap_arch_regsets[] = {
    {NT_PRFPREG, "CORE", sizeof(elf_fpregset_t)},
};
const int snap_arch_nregsets = sizeof snap_arch_regsets / sizeof snap_arch_regsets[0];

uint32_t snap_arch_eflags(uint32_t exe_flags)
{
    return exe_flags;
}
