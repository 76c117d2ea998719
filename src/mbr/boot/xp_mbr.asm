; Master boot program of the XP family, written for `repair=XP`.
;
; The BIOS loads it to 0000:7C00 with DL = the boot drive.  It moves itself
; out of the way to 0000:0600, finds the one active entry of the partition
; table, and loads that partition's first sector to 0000:7C00.  This family
; reads by the CHS address stored in the entry; only a partition that starts
; beyond the reach of the BIOS geometry is read through the INT 13h
; extensions, since its CHS bytes cannot name its first sector.
;
; The image is 446 bytes: at most 440 bytes of code and messages, then six
; zero bytes where the disk signature and the two bytes after it go.
; Assemble with: nasm -f bin -o xp_mbr.bin xp_mbr.asm

        cpu     386
        bits    16
        org     0x0600

LOAD_ADDR       equ     0x7C00          ; where the BIOS and we put boot sectors
RELOC_ADDR      equ     0x0600          ; where this program runs after the move
TABLE           equ     RELOC_ADDR + 446
SIGNATURE       equ     LOAD_ADDR + 510
DRIVE           equ     RELOC_ADDR + 512 ; scratch byte just past our copy
TRIES           equ     5

start:
        ; xor ax, ax in the 33 C0 encoding (nasm would pick 31 C0): the
        ; bytes by which tools recognise a standard MBR.
        db      0x33, 0xC0
        mov     ss, ax
        mov     sp, LOAD_ADDR
        mov     ds, ax
        mov     es, ax
        sti
        cld
        ; The partition's boot sector goes where we were loaded.
        mov     si, LOAD_ADDR
        mov     di, RELOC_ADDR
        mov     cx, 256
        rep     movsw
        jmp     0:relocated

relocated:
        mov     [DRIVE], dl             ; INT 13h AH=08h overwrites DL

        ; Exactly one entry may be active; any status other than 00/80
        ; means the table cannot be trusted.
        mov     si, TABLE
        xor     bp, bp
        mov     cx, 4
.scan:
        mov     al, [si]
        cmp     al, 0x80
        je      .active
        test    al, al
        jnz     invalid_table
        jmp     .next
.active:
        test    bp, bp
        jnz     invalid_table
        mov     bp, si
.next:
        add     si, 16
        loop    .scan
        test    bp, bp
        jnz     find_road
        int     0x18                    ; nothing to boot: the BIOS decides
        jmp     halt

find_road:
        ; Sectors the BIOS geometry can address: cylinders * heads * sectors.
        mov     ah, 0x08
        mov     dl, [DRIVE]
        int     0x13
        push    word 0                  ; AH=08h may return a table in ES:DI
        pop     es
        jc      by_chs                  ; no geometry: the entry is all we have
        movzx   eax, dh
        inc     ax
        movzx   ebx, cl
        and     bl, 0x3F
        imul    eax, ebx
        xchg    cl, ch
        shr     ch, 6
        movzx   ecx, cx
        inc     cx
        imul    eax, ecx
        cmp     [bp + 8], eax
        jb      by_chs
        call    have_extensions
        jc      by_chs                  ; nothing better left to try

by_lba:
        ; Disk address packet on the stack: size 16, one sector to
        ; 0000:7C00, 64-bit LBA from the entry.
        push    dword 0
        push    dword [bp + 8]
        push    dword LOAD_ADDR
        push    dword 0x00010010
        mov     di, TRIES
.again:
        mov     si, sp
        mov     byte [si + 2], 1        ; a failed call may lower the count
        mov     ah, 0x42
        mov     dl, [DRIVE]
        int     0x13
        jnc     loaded
        call    retry
        jmp     .again

by_chs:
        mov     di, TRIES
.again:
        mov     ax, 0x0201
        mov     bx, LOAD_ADDR
        mov     cx, [bp + 2]            ; sector + cylinder high bits, cylinder
        mov     dh, [bp + 1]
        mov     dl, [DRIVE]
        int     0x13
        jnc     loaded
        call    retry
        jmp     .again

loaded:
        cmp     word [SIGNATURE], 0xAA55
        jne     missing_os
        ; The volume boot code expects the drive in DL and its entry at DS:SI.
        mov     sp, LOAD_ADDR
        mov     si, bp
        mov     dl, [DRIVE]
        jmp     0:LOAD_ADDR

; One failed attempt: give up after TRIES of them, else reset the drive.
retry:
        dec     di
        jz      load_error
        xor     ah, ah
        mov     dl, [DRIVE]
        int     0x13
        ret

; CF clear when the drive offers the INT 13h extensions with packet access.
have_extensions:
        mov     ah, 0x41
        mov     bx, 0x55AA
        mov     dl, [DRIVE]
        int     0x13
        jc      .none
        cmp     bx, 0xAA55
        jne     .none
        test    cl, 1                   ; clears CF
        jz      .none
        ret
.none:
        stc
        ret

invalid_table:
        mov     si, msg_invalid
        jmp     print
load_error:
        mov     si, msg_load
        jmp     print
missing_os:
        mov     si, msg_missing
print:
        lodsb
        test    al, al
        jz      halt
        mov     ah, 0x0E
        mov     bx, 0x0007
        int     0x10
        jmp     print

; A message stays on the screen: no reboot loop.
halt:
        cli
        hlt
        jmp     halt

msg_invalid:    db      "Invalid partition table", 0
msg_load:       db      "Error loading operating system", 0
msg_missing:    db      "Missing operating system", 0

code_end:
%if code_end - start > 440
%error "boot program longer than 440 bytes"
%endif
        times   440 - (code_end - start) db 0
        times   6 db 0                  ; disk signature and two zero bytes
