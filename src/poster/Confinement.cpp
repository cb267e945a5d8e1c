#include "poster/Confinement.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <vector>

#include "platform/Error.h"

namespace tarn {
namespace {

constexpr rlim_t mostMemory = 256 << 20;
constexpr rlim_t mostSeconds = 10;

#if defined(__x86_64__)
constexpr uint32_t architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t architecture = AUDIT_ARCH_AARCH64;
#else
constexpr uint32_t architecture = 0;
#endif

// A sanitizer maps far more memory than is used.
#ifdef TARN_SANITIZED
constexpr bool limitsMemory = false;
#else
constexpr bool limitsMemory = true;
#endif

constexpr long allowed[] = {
    SYS_read,          SYS_pread64,   SYS_write,  SYS_lseek,      SYS_fstat, SYS_newfstatat,
    SYS_brk,           SYS_munmap,    SYS_mremap, SYS_madvise,    SYS_futex, SYS_rt_sigreturn,
    SYS_clock_gettime, SYS_getrandom, SYS_exit,   SYS_exit_group, SYS_close,
};

void limit(__rlimit_resource resource, rlim_t most) {
  const rlimit value{most, most};
  if (::setrlimit(resource, &value) != 0) throw PosixError(errno, "limit the process");
}

sock_filter statement(unsigned code, uint32_t value) {
  return {static_cast<uint16_t>(code), 0, 0, value};
}

/// Goes on after so many statements if the value is this one, else with the next.
sock_filter jumpIfEqual(uint32_t value, uint8_t ifEqual, uint8_t ifNot) {
  return {BPF_JMP | BPF_JEQ | BPF_K, ifEqual, ifNot, value};
}

/// Memory may be mapped, but for code.
std::vector<sock_filter> filterOfCalls() {
  constexpr uint32_t refuse = SECCOMP_RET_ERRNO | EPERM;
  std::vector<sock_filter> filter = {
      statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      jumpIfEqual(architecture, 1, 0),
      statement(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  for (const long call : allowed) {
    filter.push_back(jumpIfEqual(static_cast<uint32_t>(call), 0, 1));
    filter.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  }
  filter.insert(filter.end(),
                {
                    jumpIfEqual(SYS_mmap, 1, 0),
                    statement(BPF_RET | BPF_K, refuse),
                    // The lower half of the protection: of either byte order of today's machines.
                    statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + 2 * sizeof(uint64_t)),
                    {BPF_JMP | BPF_JSET | BPF_K, 0, 1, PROT_EXEC},
                    statement(BPF_RET | BPF_K, refuse),
                    statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
                });
  return filter;
}

}  // namespace

void limitProcess() {
  if (limitsMemory) limit(RLIMIT_AS, mostMemory);
  limit(RLIMIT_CPU, mostSeconds);
  limit(RLIMIT_FSIZE, 0);
  limit(RLIMIT_CORE, 0);
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) throw PosixError(errno, "end with the parent");
}

void confineProcess() {
  if (architecture == 0) throw PosixError(ENOSYS, "no filter for calls on this machine");
  auto filter = filterOfCalls();
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    throw PosixError(errno, "confine the process");
  }
}

}  // namespace tarn
