// Runs instead of the daemon, tries what the unit has to forbid, and prints the result of each try. A try that is not
// forbidden does no harm: its arguments are impossible, or what it makes is its own. The daemon's file of
// settings has the files to open, as lines such as "read /path".
#include <fcntl.h>
#include <linux/bpf.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

void say(const std::string& name, const std::string& what) {
    std::printf("%s: %s\n", name.c_str(), what.c_str());
}

// The name of an error for a result below 0, "allowed" for any other.
std::string outcome(long result) {
    return result < 0 ? strerrorname_np(errno) : "allowed";
}

template <typename... Arguments>
void call(const std::string& name, long number, Arguments... arguments) {
    say(name, outcome(syscall(number, arguments...)));
}

// In a child, so that a success harms nothing.
template <typename Action>
void in_child(const std::string& name, Action action) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        _exit(action() < 0 ? errno : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const int code = WIFSIGNALED(status) ? EINTR : WEXITSTATUS(status);
    say(name, code == 0 ? "allowed" : code == 127 ? "refused by the loader" : strerrorname_np(code));
}

void files(const std::string& own) {
    const std::string configuration = "/usr/local/zelgw/opt/av/quorin/etc/zel_quorin_updater.conf";
    std::ifstream tries(configuration);
    for (std::string how, path; tries >> how >> path;) {
        const int fd = open(path.c_str(), (how == "read" ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
        say(how + " " + path, outcome(fd));
        close(fd);
    }
    say("create a file of its own", outcome(creat((own + "/file").c_str(), 0600)));
}

// Except for the definitions root, no file system may be writable here.
void writable_mounts() {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string skipped;
        std::string point;
        std::string options;
        fields >> skipped >> skipped >> skipped >> skipped >> point >> options;
        if (options.rfind("rw", 0) == 0 && access(point.c_str(), W_OK) == 0) {
            say("writable mount", point);
        }
    }
}

void modes(const std::string& own) {
    const std::string path = own + "/file";
    say("chmod set-user-id", outcome(chmod(path.c_str(), 04755)));
    say("chmod 0666", outcome(chmod(path.c_str(), 0666)));
    say("chown to oneself", outcome(chown(path.c_str(), geteuid(), getegid())));
    say("mknod", outcome(mknod((own + "/device").c_str(), S_IFCHR | 0600, makedev(1, 3))));
    say("mkfifo", outcome(mkfifo((own + "/fifo").c_str(), 0600)));
}

void programs(const std::string& own) {
    const std::string copy = own + "/true";
    std::error_code ignored;
    fs::copy_file("/bin/true", copy, ignored);
    fs::permissions(copy, fs::perms::owner_all, ignored);
    in_child("run /bin/true", [] { return execl("/bin/true", "true", nullptr); });
    in_child("run a file of its own", [&] { return execl(copy.c_str(), "true", nullptr); });
    // The loader itself may run; it must not be able to map the program, and exits with 127 then.
    in_child("run /bin/true by the loader", [] {
        close(STDERR_FILENO);
        return execl("/lib64/ld-linux-x86-64.so.2", "loader", "/bin/true", nullptr);
    });
    const int fd = open(copy.c_str(), O_RDONLY | O_CLOEXEC);
    void* mapped = mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
    say("map a file of its own to execute", outcome(mapped == MAP_FAILED ? -1 : 0));
    mapped = mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    say("map memory to write and execute", outcome(mapped == MAP_FAILED ? -1 : 0));
    mapped = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    say("make memory executable", outcome(mprotect(mapped, 4096, PROT_READ | PROT_EXEC)));
}

void sockets() {
    say("socket inet", outcome(socket(AF_INET, SOCK_STREAM, 0)));
    say("socket inet6", outcome(socket(AF_INET6, SOCK_STREAM, 0)));
    say("socket unix", outcome(socket(AF_UNIX, SOCK_DGRAM, 0)));
    say("socket netlink", outcome(socket(AF_NETLINK, SOCK_RAW, 0)));
    say("socket packet", outcome(socket(AF_PACKET, SOCK_RAW, 0)));
    say("socket inet raw", outcome(socket(AF_INET, SOCK_RAW, IPPROTO_ICMP)));
}

void calls() {
    call("mount", SYS_mount, "none", "/tmp", "tmpfs", 0UL, nullptr);
    in_child("chroot", [] { return chroot("/"); });
    in_child("ptrace", [] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); });
    call("bpf", SYS_bpf, BPF_MAP_CREATE, nullptr, 0U);
    call("userfaultfd", SYS_userfaultfd, -1);
    call("add_key", SYS_add_key, "user", "zqu", "x", 1UL, -3);
    call("memfd_create", SYS_memfd_create, "zqu", 1U);
    call("setuid to oneself", SYS_setuid, getuid());
    call("setuid to root", SYS_setuid, 0);
    in_child("unshare of users", [] { return syscall(SYS_unshare, 0x10000000); });
    in_child("unshare of mounts", [] { return syscall(SYS_unshare, 0x00020000); });
    call("reboot", SYS_reboot, 0, 0, 0, nullptr);
    call("clock_settime", SYS_clock_settime, 0, nullptr);
    call("sethostname", SYS_sethostname, nullptr, -1L);
    call("kernel log", SYS_syslog, 3, nullptr, -1);
    call("personality", SYS_personality, ADDR_NO_RANDOMIZE);
    call("open_by_handle_at", SYS_open_by_handle_at, -1, nullptr, 0);
    call("setpriority", SYS_setpriority, 0, 0, 19);
    call("io_uring_setup", SYS_io_uring_setup, 0U, nullptr);
    call("signal to init", SYS_kill, 1, 0);
}

void itself() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        for (const std::string field : {"CapPrm", "CapEff", "CapBnd", "CapAmb", "NoNewPrivs", "Seccomp"}) {
            if (line.rfind(field + ":", 0) == 0) {
                say(field, line.substr(line.find('\t') + 1));
            }
        }
    }
    int others = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        others += name.find_first_not_of("0123456789") == std::string::npos && std::stoi(name) != getpid() ? 1 : 0;
    }
    say("other processes", std::to_string(others));
}

// How many processes and open files there can be, up to some more than the unit is to allow.
void limits() {
    std::fflush(stdout);
    int tasks = 1;
    for (pid_t child = fork(); child >= 0 && tasks < 40; child = fork()) {
        if (child == 0) {
            pause();
            _exit(0);
        }
        ++tasks;
    }
    signal(SIGTERM, SIG_IGN);
    kill(0, SIGTERM);
    while (wait(nullptr) > 0) {
    }
    say("tasks", std::to_string(tasks));
    int files = STDERR_FILENO;
    for (int next = files; next >= 0 && files < 2000; next = dup(STDOUT_FILENO)) {
        files = next;
    }
    say("open files", std::to_string(files + 1));
    rlimit size = {};
    getrlimit(RLIMIT_FSIZE, &size);
    say("file size", std::to_string(size.rlim_cur));
}

}  // namespace

int main() {
    const std::string own = "/usr/local/zelgw/opt/av/quorin/defs";
    for (const char* name : {"file", "device", "fifo", "true"}) {
        unlink((own + "/" + name).c_str());  // a former run's, as another user
    }
    itself();
    files(own);
    writable_mounts();
    modes(own);
    programs(own);
    sockets();
    calls();
    limits();
    return 0;
}
