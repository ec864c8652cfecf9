        .section .text, "ax"
        .ascii "text segment, loaded at 0x3000"
        .section .data, "aw"
        .ascii "data segment, at 0x5000; its bss follows"
        .section .bss, "aw", @nobits
        .zero 32
