/*
 * vxfault: a test-only system-call fault injector, loaded into a program
 * with LD_PRELOAD. Nothing of it is in any shipped binary.
 *
 * Its constructor, which runs once the dynamic loader has loaded every
 * library, installs a seccomp filter that traps (SIGSYS) every system call
 * of five kinds made from anywhere but this library's own system-call
 * instruction:
 *
 *   open   open, openat, openat2, creat
 *   read   read, pread64, readv, preadv, preadv2
 *   ioctl  ioctl
 *   mmap   mmap
 *   write  write, pwrite64, writev, pwritev, pwritev2
 *
 * The SIGSYS handler counts the calls of each kind and makes each call
 * itself, except the VXFAULT_NTH-th call of kind VXFAULT_CALL, which it
 * fails with VXFAULT_ERRNO (a number; EIO by default, ENOMEM for mmap)
 * without making it. So every call counts, those inside the C library too
 * (stdio's reads and writes, fopen's openat), and the program sees exactly
 * what a failing kernel would give it. The dynamic loader's own calls
 * before the constructor are not counted: a program that cannot be loaded
 * is not the program's failure.
 *
 * When it fails a call it appends one line to the file VXFAULT_LOG:
 *
 *   KIND N SYSCALL ERRNO TARGET
 *
 * TARGET is the path for an open, "fd=F:PATH" for a call on a descriptor
 * (PATH as /proc/self/fd/F names it) and "anonymous" for an mmap without
 * one. No line: the program made fewer than N calls of that kind. Without
 * VXFAULT_CALL the library counts and fails nothing. With VXFAULT_FROM, a
 * path, counting starts at the program's first open of that path (which
 * is the first open counted); the calls before it are made, uncounted.
 *
 * x86-64 and AArch64: the registers of the trapped call are read as the
 * architecture's system-call convention lays them out (REGISTERS below).
 * AArch64 has no open, creat or readlink calls; its programs open with
 * openat.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

/* raw_syscall(nr, a0..a5): the one system-call instruction the filter lets
 * through; raw_syscall_return is the address the kernel reports for it (the
 * instruction after it, on both architectures). */
long raw_syscall(long nr, long a0, long a1, long a2, long a3, long a4, long a5);
extern const char raw_syscall_return[];
#if defined(__x86_64__)
#define RAW_SYSCALL_BODY \
    "  mov %rdi, %rax\n"  \
    "  mov %rsi, %rdi\n"  \
    "  mov %rdx, %rsi\n"  \
    "  mov %rcx, %rdx\n"  \
    "  mov %r8, %r10\n"   \
    "  mov %r9, %r8\n"    \
    "  mov 8(%rsp), %r9\n" \
    "  syscall\n"
#define RAW_SYSCALL_TYPE "@function"
#define FILTER_ARCH AUDIT_ARCH_X86_64
/* The trapped call's number is the signal's; its arguments and result are
 * in the registers of the interrupted context. */
typedef greg_t trap_register;
#define REGISTERS(context) ((context)->uc_mcontext.gregs)
#define ARGUMENTS(r) {r[REG_RDI], r[REG_RSI], r[REG_RDX], r[REG_R10], r[REG_R8], r[REG_R9]}
#define RESULT(r) (r[REG_RAX])
#elif defined(__aarch64__)
#define RAW_SYSCALL_BODY \
    "  mov x8, x0\n"     \
    "  mov x0, x1\n"     \
    "  mov x1, x2\n"     \
    "  mov x2, x3\n"     \
    "  mov x3, x4\n"     \
    "  mov x4, x5\n"     \
    "  mov x5, x6\n"     \
    "  svc #0\n"
#define RAW_SYSCALL_TYPE "%function"
#define FILTER_ARCH AUDIT_ARCH_AARCH64
/* x0 holds the first argument again when the handler runs (the kernel rolls
 * the trapped call back) and takes the result. */
typedef unsigned long long trap_register;
#define REGISTERS(context) ((context)->uc_mcontext.regs)
#define ARGUMENTS(r) {r[0], r[1], r[2], r[3], r[4], r[5]}
#define RESULT(r) (r[0])
#else
#error "vxfault reads the trapped call's registers as x86-64 or AArch64 lays them out"
#endif
__asm__(".text\n"
        ".globl raw_syscall\n"
        ".hidden raw_syscall\n"
        ".type raw_syscall, " RAW_SYSCALL_TYPE "\n"
        "raw_syscall:\n" RAW_SYSCALL_BODY
        ".globl raw_syscall_return\n"
        ".hidden raw_syscall_return\n"
        "raw_syscall_return:\n"
        "  ret\n"
        ".size raw_syscall, . - raw_syscall\n");

enum { OPEN, READ, IOCTL, MMAP, WRITE, KINDS };
static const char* const KIND_NAMES[KINDS] = {"open", "read", "ioctl", "mmap", "write"};

static const struct {
    int nr;
    int kind;
    const char* name;
} CALLS[] = {
#ifdef SYS_open
    {SYS_open, OPEN, "open"},         {SYS_creat, OPEN, "creat"},
#endif
    {SYS_openat, OPEN, "openat"},     {SYS_openat2, OPEN, "openat2"},
    {SYS_read, READ, "read"},         {SYS_pread64, READ, "pread64"},
    {SYS_readv, READ, "readv"},       {SYS_preadv, READ, "preadv"},
    {SYS_preadv2, READ, "preadv2"},   {SYS_ioctl, IOCTL, "ioctl"},
    {SYS_mmap, MMAP, "mmap"},         {SYS_write, WRITE, "write"},
    {SYS_pwrite64, WRITE, "pwrite64"}, {SYS_writev, WRITE, "writev"},
    {SYS_pwritev, WRITE, "pwritev"},  {SYS_pwritev2, WRITE, "pwritev2"},
};
#define NCALLS (sizeof CALLS / sizeof CALLS[0])

static unsigned long g_counts[KINDS];
static int g_fault_kind = -1;
static unsigned long g_fault_nth;
static int g_fault_errno;
static const char* g_log;
static const char* g_from; /* NULL: counting from the start */
static int g_counting;

/* A line being put together without the C library (the handler may
 * interrupt it anywhere). */
struct line {
    char text[1024];
    size_t length;
};

static void put(struct line* l, const char* s)
{
    while (*s && l->length < sizeof l->text - 1)
        l->text[l->length++] = *s++;
}

static void put_number(struct line* l, unsigned long v)
{
    char digits[24];
    int n = 0;
    do {
        digits[n++] = (char)('0' + v % 10);
        v /= 10;
    } while (v);
    while (n && l->length < sizeof l->text - 1)
        l->text[l->length++] = digits[--n];
}

/* What a call works on: the path of an open, the descriptor's target. */
static void put_target(struct line* l, int kind, long nr, const long* a)
{
    long fd = a[0];
    const char* path = NULL;
    if (nr == SYS_openat || nr == SYS_openat2)
        path = (const char*)a[1];
    else
        path = (const char*)a[0]; /* open, creat */
    if (kind == OPEN) {
        put(l, path ? path : "?");
        return;
    }
    if (kind == MMAP) {
        fd = a[4];
        if ((a[3] & MAP_ANONYMOUS) || fd < 0) {
            put(l, "anonymous");
            return;
        }
    }
    char link[64] = "/proc/self/fd/";
    struct line name = {.length = 0};
    put_number(&name, (unsigned long)fd);
    name.text[name.length] = '\0';
    strcat(link, name.text);
    char target[512];
    const long n = raw_syscall(SYS_readlinkat, AT_FDCWD, (long)link, (long)target, sizeof target - 1, 0, 0);
    put(l, "fd=");
    put(l, name.text);
    put(l, ":");
    if (n > 0) {
        target[n] = '\0';
        put(l, target);
    } else {
        put(l, "?");
    }
}

static void log_fault(int kind, unsigned long nth, long nr, const char* name, const long* a)
{
    if (!g_log)
        return;
    struct line l = {.length = 0};
    put(&l, KIND_NAMES[kind]);
    put(&l, " ");
    put_number(&l, nth);
    put(&l, " ");
    put(&l, name);
    put(&l, " ");
    put_number(&l, (unsigned long)g_fault_errno);
    put(&l, " ");
    put_target(&l, kind, nr, a);
    put(&l, "\n");
    const long fd = raw_syscall(SYS_openat, AT_FDCWD, (long)g_log,
                                O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644, 0, 0);
    if (fd < 0)
        return;
    raw_syscall(SYS_write, fd, (long)l.text, (long)l.length, 0, 0, 0);
    raw_syscall(SYS_close, fd, 0, 0, 0, 0, 0);
}

static void on_sigsys(int signal, siginfo_t* info, void* context)
{
    (void)signal;
    trap_register* r = REGISTERS((ucontext_t*)context);
    const long nr = info->si_syscall;
    const long a[6] = ARGUMENTS(r);
    for (size_t i = 0; i < NCALLS; ++i) {
        if (CALLS[i].nr != nr)
            continue;
        const int kind = CALLS[i].kind;
        if (!__atomic_load_n(&g_counting, __ATOMIC_SEQ_CST)) {
            const char* path = nr == SYS_openat || nr == SYS_openat2 ? (const char*)a[1] : (const char*)a[0];
            if (kind != OPEN || strcmp(path, g_from) != 0)
                break;
            __atomic_store_n(&g_counting, 1, __ATOMIC_SEQ_CST);
        }
        const unsigned long nth = __atomic_add_fetch(&g_counts[kind], 1, __ATOMIC_SEQ_CST);
        if (kind == g_fault_kind && nth == g_fault_nth) {
            log_fault(kind, nth, nr, CALLS[i].name, a);
            RESULT(r) = (trap_register)-g_fault_errno;
            return;
        }
        break;
    }
    RESULT(r) = (trap_register)raw_syscall(nr, a[0], a[1], a[2], a[3], a[4], a[5]);
}

static void fail_setup(const char* what)
{
    static const char prefix[] = "vxfault: cannot ";
    raw_syscall(SYS_write, 2, (long)prefix, sizeof prefix - 1, 0, 0, 0);
    raw_syscall(SYS_write, 2, (long)what, (long)strlen(what), 0, 0, 0);
    raw_syscall(SYS_write, 2, (long)"\n", 1, 0, 0, 0);
    _exit(125);
}

__attribute__((constructor)) static void install(void)
{
    const char* kind = getenv("VXFAULT_CALL");
    g_log = getenv("VXFAULT_LOG");
    g_from = getenv("VXFAULT_FROM");
    g_counting = g_from == NULL;
    if (kind) {
        for (int k = 0; k < KINDS; ++k) {
            if (strcmp(kind, KIND_NAMES[k]) == 0)
                g_fault_kind = k;
        }
        const char* nth = getenv("VXFAULT_NTH");
        g_fault_nth = nth ? strtoul(nth, NULL, 10) : 0;
        if (g_fault_kind < 0 || g_fault_nth == 0)
            fail_setup("run: VXFAULT_CALL must be open, read, ioctl, mmap or write, VXFAULT_NTH a count from 1");
        const char* e = getenv("VXFAULT_ERRNO");
        g_fault_errno = e ? atoi(e) : g_fault_kind == MMAP ? ENOMEM : EIO;
    }

    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = on_sigsys;
    /* A trapped call in a signal handler that interrupts this one's own
     * call (a blocking read) must be handled too. */
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_RESTART;
    if (sigaction(SIGSYS, &action, NULL) != 0)
        fail_setup("install the SIGSYS handler");

    const unsigned long at = (unsigned long)raw_syscall_return;
    struct sock_filter filter[11 + NCALLS] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, FILTER_ARCH, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        /* This library's own instruction. */
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, instruction_pointer)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)at, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, instruction_pointer) + 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)(at >> 32), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    size_t n = 8;
    filter[n++] = (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr));
    for (size_t i = 0; i < NCALLS; ++i)
        filter[n++] = (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)CALLS[i].nr,
                                                   (unsigned char)(NCALLS - i), 0);
    filter[n++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    filter[n++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP);
    const struct sock_fprog program = {.len = (unsigned short)n, .filter = filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        raw_syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, (long)&program, 0, 0, 0) != 0)
        fail_setup("install the seccomp filter");
}
