/* vboard: the virtual board. `vboard run [options] -- COMMAND...` serves the
 * board's device files and services in a private mount namespace and runs
 * COMMAND there.
 *
 * Processes: the supervisor stays in the caller's namespace, owns the state
 * directory and collects every process the run leaves behind (it is a child
 * subreaper); its one child, the board, enters the private namespace and runs
 * the FUSE file system, the chip's deadline timer, the services' GLib loop,
 * the control and syslog sockets, dbus-daemon and COMMAND. The namespace and
 * all its mounts vanish when its last process exits. */
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gio/gio.h>

#include "board.h"
#include "board_fs.h"
#include "board_services.h"
#include "cli.h"
#include "control.h"
#include "sandbox.h"

namespace fs = std::filesystem;
using namespace vboard;

namespace
{

constexpr int EXIT_USAGE = 2;

struct RunOptions {
    BoardOptions board;
    ServicesOptions services;
    std::optional<std::string> config;
    std::optional<std::string> policy;
    std::optional<std::string> state_dir;
    std::vector<std::string> command;
};

[[noreturn]] void die_usage(const std::string &message)
{
    std::fprintf(stderr, "vboard: %s\n", message.c_str());
    std::exit(EXIT_USAGE);
}

void usage(FILE *out)
{
    std::fprintf(out,
                 "usage: vboard run [--chip tp2826|tp2827] [--no-cpuid] [--config FILE]\n"
                 "                  [--camera CH:STANDARD:RESOLUTION[:long]]...\n"
                 "                  [--capture-mode CH:MODE]... [--policy FILE]\n"
                 "                  [--state-dir DIR] -- COMMAND...\n"
                 "Runs COMMAND on a virtual encoder board: a private mount namespace with\n"
                 "the decoder chip on /dev/i2c-7, the GPIO lines, the capture driver's files,\n"
                 "/etc/encoder, /run/vidhostd, /dev/log and a system bus with the board's\n"
                 "services. Needs root or unprivileged user namespaces. Drive it with\n"
                 "vboard-ctl.\n");
}

RunOptions parse_run(int argc, char **argv)
{
    RunOptions o;
    int i = 2;
    auto value = [&](const char *opt) -> std::string {
        if (i + 1 >= argc)
            die_usage(std::string(opt) + " needs a value");
        return argv[++i];
    };
    for (; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--") {
            i++;
            break;
        }
        std::string error;
        if (a == "--chip") {
            std::string v = value("--chip");
            if (v == "tp2826")
                o.board.kind = ChipKind::TP2826;
            else if (v == "tp2827")
                o.board.kind = ChipKind::TP2827;
            else
                die_usage("--chip: tp2826 or tp2827");
        } else if (a == "--no-cpuid") {
            o.board.cpuid = false;
        } else if (a == "--config") {
            o.config = value("--config");
        } else if (a == "--policy") {
            o.policy = value("--policy");
        } else if (a == "--state-dir") {
            o.state_dir = value("--state-dir");
        } else if (a == "--camera") {
            auto cam = parse_camera_option(value("--camera"), &error);
            if (!cam)
                die_usage("--camera: " + error);
            o.board.cameras.push_back(*cam);
        } else if (a == "--capture-mode") {
            auto cm = parse_capture_mode_option(value("--capture-mode"), &error);
            if (!cm)
                die_usage("--capture-mode: " + error);
            o.services.capture_modes[cm->channel] = cm->mode;
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            std::exit(0);
        } else {
            die_usage("unknown option " + a + " (see vboard run --help)");
        }
    }
    for (; i < argc; i++)
        o.command.push_back(argv[i]);
    if (o.command.empty())
        die_usage("no COMMAND after --");
    if (o.config && access(o.config->c_str(), R_OK) != 0)
        die_usage("--config: cannot read " + *o.config);
    return o;
}

std::string absolute(const std::string &p)
{
    std::error_code ec;
    auto a = fs::absolute(p, ec);
    return ec ? p : a.lexically_normal().string();
}

/* Signals that another process sent (kill) are passed on; those a terminal
 * sends reach the whole foreground process group by themselves. */
bool sent_by_process(const siginfo_t &si)
{
    return si.si_code <= 0;
}

/* Children of ours other than the given ones: processes orphaned inside the
 * run and reparented to us as their subreaper. */
std::vector<pid_t> own_children()
{
    std::vector<pid_t> out;
    pid_t self = getpid();
    DIR *d = opendir("/proc");
    if (!d)
        return out;
    while (dirent *de = readdir(d)) {
        char *end;
        long pid = std::strtol(de->d_name, &end, 10);
        if (*end || pid <= 0)
            continue;
        std::ifstream in("/proc/" + std::string(de->d_name) + "/stat");
        std::string line;
        std::getline(in, line);
        size_t rp = line.rfind(')');
        if (rp == std::string::npos)
            continue;
        char state;
        long ppid;
        if (std::sscanf(line.c_str() + rp + 1, " %c %ld", &state, &ppid) == 2 && ppid == self)
            out.push_back(static_cast<pid_t>(pid));
    }
    closedir(d);
    return out;
}

/* Ends every remaining child: SIGTERM, then SIGKILL after a grace time. */
void end_children(int grace_ms)
{
    for (pid_t p : own_children())
        kill(p, SIGTERM);
    for (int waited = 0;; waited += 10) {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        auto left = own_children();
        if (left.empty())
            return;
        if (waited >= grace_ms) {
            for (pid_t p : left)
                kill(p, SIGKILL);
            for (pid_t p : left)
                waitpid(p, nullptr, 0);
            return;
        }
        usleep(10000);
    }
}

int status_to_exit(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return 1;
}

/* ---- the board process ---------------------------------------------------- */

struct SyslogSink {
    int fd = -1;
    int out = -1;
};

bool open_syslog_sink(const std::string &socket_path, const std::string &log_path, SyslogSink *sink,
                      std::string *error)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, socket_path.c_str());
    unlink(socket_path.c_str());
    sink->fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sink->fd < 0 || bind(sink->fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        *error = std::string("syslog socket: ") + std::strerror(errno);
        return false;
    }
    chmod(socket_path.c_str(), 0666);
    sink->out = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (sink->out < 0) {
        *error = "cannot write " + log_path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void drain_syslog(const SyslogSink &sink)
{
    char buf[8192];
    while (true) {
        ssize_t n = recv(sink.fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n <= 0)
            return;
        std::string line(buf, static_cast<size_t>(n));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\0'))
            line.pop_back();
        line += '\n';
        if (write(sink.out, line.data(), line.size()) < 0)
            return;
    }
}

int listen_control(const std::string &path, std::string *error)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(fd, 16) != 0) {
        *error = std::string("control socket: ") + std::strerror(errno);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

/* Control requests and syslog datagrams, on one thread. */
class IoThread
{
  public:
    IoThread(Board &board, int control_fd, SyslogSink sink)
        : board_(board), control_fd_(control_fd), sink_(sink)
    {
        if (pipe2(wake_, O_CLOEXEC) != 0)
            wake_[0] = wake_[1] = -1;
        thread_ = std::thread([this] { loop(); });
    }
    ~IoThread()
    {
        char c = 1;
        if (write(wake_[1], &c, 1) < 0) {
        }
        thread_.join();
        drain_syslog(sink_);
        close(wake_[0]);
        close(wake_[1]);
    }

  private:
    void loop()
    {
        while (true) {
            pollfd fds[3] = {
                {wake_[0], POLLIN, 0}, {control_fd_, POLLIN, 0}, {sink_.fd, POLLIN, 0}};
            if (poll(fds, 3, -1) < 0) {
                if (errno == EINTR)
                    continue;
                return;
            }
            if (fds[0].revents)
                return;
            if (fds[2].revents)
                drain_syslog(sink_);
            if (fds[1].revents & POLLIN) {
                int c = accept4(control_fd_, nullptr, nullptr, SOCK_CLOEXEC);
                if (c >= 0) {
                    /* What the daemon logged before the request is in the log. */
                    drain_syslog(sink_);
                    control_serve(c, [this](const std::vector<std::string> &args) {
                        return board_.command(args);
                    });
                    close(c);
                }
            }
        }
    }

    Board &board_;
    int control_fd_;
    SyslogSink sink_;
    int wake_[2];
    std::thread thread_;
};

std::string bus_config(const std::string &socket_path, const std::optional<std::string> &policy)
{
    std::string c =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<busconfig>\n"
        "  <type>system</type>\n"
        "  <listen>unix:path=" +
        socket_path +
        "</listen>\n"
        "  <auth>EXTERNAL</auth>\n"
        "  <policy context=\"default\">\n"
        "    <allow user=\"*\"/>\n"
        "    <allow send_type=\"signal\"/>\n"
        "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
        "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
        "    <allow receive_type=\"method_call\"/>\n"
        "    <allow receive_type=\"method_return\"/>\n"
        "    <allow receive_type=\"error\"/>\n"
        "    <allow receive_type=\"signal\"/>\n"
        "    <allow send_destination=\"org.freedesktop.DBus\"/>\n";
    if (policy) {
        /* A system bus as on the encoder: only what a policy grants. */
        c += "    <deny own=\"*\"/>\n"
             "    <deny send_type=\"method_call\"/>\n"
             "    <allow send_destination=\"org.freedesktop.DBus\"/>\n";
        for (Service s : ALL_SERVICES) {
            c += std::string("    <allow own=\"") + service_bus_name(s) + "\"/>\n";
            c += std::string("    <allow send_destination=\"") + service_bus_name(s) + "\"/>\n";
        }
    } else {
        c += "    <allow own=\"*\"/>\n"
             "    <allow send_type=\"method_call\"/>\n";
    }
    c += "  </policy>\n";
    if (policy)
        c += "  <include ignore_missing=\"yes\">" + *policy + "</include>\n";
    c += "</busconfig>\n";
    return c;
}

/* Starts dbus-daemon and returns its address, or "" with *error. */
std::string start_bus(const std::string &config_path, const std::string &log_path, pid_t *pid,
                      std::string *error)
{
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) {
        *error = "pipe";
        return "";
    }
    pid_t child = fork();
    if (child == 0) {
        /* Its own process group: a terminal's Ctrl-C is for COMMAND. */
        setpgid(0, 0);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        dup2(p[1], 3);
        int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (log >= 0)
            dup2(log, 2);
        std::string cfg = "--config-file=" + config_path;
        execlp("dbus-daemon", "dbus-daemon", cfg.c_str(), "--nofork", "--nopidfile",
               "--print-address=3", static_cast<char *>(nullptr));
        std::fprintf(stderr, "vboard: cannot run dbus-daemon: %s\n", std::strerror(errno));
        _exit(127);
    }
    close(p[1]);
    *pid = child;
    std::string address;
    pollfd pf = {p[0], POLLIN, 0};
    for (int waited = 0; waited < 10000 && address.find('\n') == std::string::npos;) {
        int r = poll(&pf, 1, 100);
        waited += 100;
        if (r > 0) {
            char buf[512];
            ssize_t n = read(p[0], buf, sizeof buf);
            if (n <= 0)
                break;
            address.append(buf, static_cast<size_t>(n));
        }
    }
    close(p[0]);
    size_t nl = address.find('\n');
    if (nl == std::string::npos) {
        *error = "dbus-daemon did not start";
        return "";
    }
    return address.substr(0, nl);
}

class MainLoopThread
{
  public:
    MainLoopThread() : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE))
    {
        thread_ = std::thread([this] {
            g_main_context_push_thread_default(context_);
            g_main_loop_run(loop_);
            g_main_context_pop_thread_default(context_);
        });
        while (!g_main_loop_is_running(loop_))
            std::this_thread::yield();
    }
    ~MainLoopThread()
    {
        g_main_loop_quit(loop_);
        g_main_context_wakeup(context_);
        thread_.join();
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }
    GMainContext *context() const { return context_; }

  private:
    GMainContext *context_;
    GMainLoop *loop_;
    std::thread thread_;
};

void write_ready(const std::string &state, const std::string &control_path)
{
    std::string tmp = state + "/" + READY_FILE + ".tmp";
    {
        std::ofstream out(tmp);
        out << control_path << "\n";
    }
    rename(tmp.c_str(), (state + "/" + READY_FILE).c_str());
}

pid_t start_command(const std::vector<std::string> &command, const std::string &state)
{
    pid_t pid = fork();
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("VBOARD_STATE_DIR", state.c_str(), 1);
        /* The daemon finds the bus at its fixed path. */
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        std::vector<char *> argv;
        for (const auto &a : command)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        std::fprintf(stderr, "vboard: cannot run %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    return pid;
}

/* Where the board's FUSE files are bound in the namespace. */
constexpr const char *BOUND_PATHS[] = {"/dev/i2c-7",         "/dev/cam0", "/dev/cam1",
                                       "/dev/cam2",          "/dev/cam3", "/sys/class/gpio",
                                       "/proc/driver/veltra"};

/* The board's files at the daemon's fixed paths. */
bool install_mounts(const std::string &state, std::string *error)
{
    const std::string fuse_dir = state + "/fuse";
    std::vector<ShadowEntry> dev;
    dev.push_back(ShadowEntry{"i2c-7", fuse_dir + "/i2c-7"});
    dev.push_back(ShadowEntry{"log", state + "/" + LOG_SOCKET});
    for (int i = 0; i < NUM_CHANNELS; i++)
        dev.push_back(
            ShadowEntry{"cam" + std::to_string(i), fuse_dir + "/cam" + std::to_string(i)});
    std::vector<ShadowEntry> sys_class;
    sys_class.push_back(ShadowEntry{"gpio", fuse_dir + "/gpio"});
    std::vector<ShadowEntry> proc_driver;
    proc_driver.push_back(ShadowEntry{"veltra", fuse_dir + "/driver/veltra"});
    std::vector<ShadowEntry> etc;
    etc.push_back(ShadowEntry{"encoder", state + "/etc-encoder"});
    std::vector<ShadowEntry> run;
    run.push_back(ShadowEntry{"dbus", state + "/run-dbus"});
    run.push_back(ShadowEntry{"vidhostd", state + "/run-vidhostd"});
    return shadow_directory("/dev", dev, error) &&
           shadow_directory("/sys/class", sys_class, error) &&
           shadow_directory("/proc/driver", proc_driver, error) &&
           shadow_directory("/etc", etc, error) && shadow_directory("/run", run, error);
}

int board_main(RunOptions &o, const std::string &state)
{
    std::string error;
    bool no_privilege = false;
    if (!enter_private_namespace(&error, &no_privilege)) {
        std::fprintf(stderr, "vboard: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    prctl(PR_SET_CHILD_SUBREAPER, 1);

    const std::string fuse_dir = state + "/fuse";
    const std::string etc_dir = state + "/etc-encoder";
    const std::string vidhostd_dir = state + "/run-vidhostd";
    const std::string dbus_dir = state + "/run-dbus";
    const std::vector<std::string> dirs = {fuse_dir, etc_dir, vidhostd_dir, dbus_dir};
    for (const auto &d : dirs) {
        std::error_code ec;
        fs::create_directories(d, ec);
        if (ec) {
            std::fprintf(stderr, "vboard: cannot create %s: %s\n", d.c_str(), ec.message().c_str());
            return 1;
        }
    }
    if (o.config) {
        std::error_code ec;
        fs::copy_file(*o.config, etc_dir + "/video.conf", fs::copy_options::overwrite_existing, ec);
        if (ec) {
            std::fprintf(stderr, "vboard: cannot copy %s: %s\n", o.config->c_str(),
                         ec.message().c_str());
            return 1;
        }
    }

    Board board(o.board);
    board.set_log_path(state + "/" + LOG_FILE);
    BoardFs files(board);
    if (!files.start(fuse_dir, &error)) {
        std::fprintf(stderr, "vboard: %s\n", error.c_str());
        return 1;
    }
    SyslogSink sink;
    if (!open_syslog_sink(state + "/" + LOG_SOCKET, state + "/" + LOG_FILE, &sink, &error)) {
        std::fprintf(stderr, "vboard: %s\n", error.c_str());
        return 1;
    }

    if (!install_mounts(state, &error)) {
        std::fprintf(stderr, "vboard: %s\n", error.c_str());
        return 1;
    }

    const std::string bus_socket = dbus_dir + "/system_bus_socket";
    const std::string bus_conf = state + "/dbus-system.conf";
    {
        std::ofstream out(bus_conf);
        out << bus_config(bus_socket, o.policy);
    }
    pid_t bus_pid = -1;
    std::string address = start_bus(bus_conf, state + "/dbus.log", &bus_pid, &error);
    if (address.empty()) {
        std::fprintf(stderr, "vboard: %s\n", error.c_str());
        end_children(500);
        return 1;
    }

    int code = 1;
    {
        MainLoopThread loop;
        GError *gerror = nullptr;
        GDBusConnection *connection = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &gerror);
        if (!connection) {
            std::fprintf(stderr, "vboard: cannot connect to the board's bus: %s\n",
                         gerror->message);
            g_error_free(gerror);
            end_children(500);
            return 1;
        }
        g_dbus_connection_set_exit_on_close(connection, FALSE);
        o.services.context = loop.context();
        auto services = std::make_unique<BoardServices>(connection, o.services);
        if (!services->wait_ready(10000))
            std::fprintf(stderr, "vboard: warning: not every service owns its bus name\n");
        board.set_services(services.get());

        const std::string control_path = state + "/" + CONTROL_SOCKET;
        int control_fd = listen_control(control_path, &error);
        if (control_fd < 0) {
            std::fprintf(stderr, "vboard: %s\n", error.c_str());
            board.set_services(nullptr);
            services.reset();
            g_object_unref(connection);
            end_children(500);
            return 1;
        }
        {
            IoThread io(board, control_fd, sink);
            write_ready(state, control_path);
            std::fprintf(stderr, "vboard: ready, state dir %s\n", state.c_str());

            pid_t cmd = start_command(o.command, state);
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGINT);
            sigaddset(&set, SIGTERM);
            sigaddset(&set, SIGCHLD);
            bool done = false;
            while (!done) {
                siginfo_t si;
                if (sigwaitinfo(&set, &si) < 0)
                    continue;
                if (si.si_signo == SIGCHLD) {
                    int status;
                    pid_t p;
                    while ((p = waitpid(-1, &status, WNOHANG)) > 0) {
                        if (p == cmd) {
                            code = status_to_exit(status);
                            done = true;
                        } else if (p == bus_pid) {
                            std::fprintf(stderr, "vboard: dbus-daemon exited\n");
                            bus_pid = -1;
                        }
                    }
                } else if (sent_by_process(si)) {
                    kill(cmd, si.si_signo);
                }
            }
            unlink((state + "/" + READY_FILE).c_str());
            unlink(control_path.c_str());
        }
        close(control_fd);
        board.set_services(nullptr);
        services.reset();
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
    }
    /* COMMAND's leftovers and dbus-daemon. */
    end_children(2000);
    /* The file system ends with its last mount: the bound copies first. */
    for (const char *p : BOUND_PATHS)
        umount2(p, MNT_DETACH);
    files.stop();
    close(sink.fd);
    close(sink.out);
    unlink((state + "/" + LOG_SOCKET).c_str());
    rmdir(fuse_dir.c_str());
    return code;
}

/* ---- the supervisor ------------------------------------------------------- */

int run(int argc, char **argv)
{
    RunOptions o = parse_run(argc, argv);
    bool own_state = !o.state_dir;
    std::string state;
    if (own_state) {
        char tmpl[] = "/tmp/vboard.XXXXXX";
        if (!mkdtemp(tmpl))
            die_usage(std::string("cannot create a state directory: ") + std::strerror(errno));
        state = tmpl;
    } else {
        state = absolute(*o.state_dir);
        std::error_code ec;
        fs::create_directories(state, ec);
        if (ec)
            die_usage("--state-dir: " + ec.message());
    }
    if (o.config)
        o.config = absolute(*o.config);
    if (o.policy)
        o.policy = absolute(*o.policy);
    if ((state + "/run-dbus/system_bus_socket").size() >= sizeof(sockaddr_un::sun_path)) {
        if (own_state)
            rmdir(state.c_str());
        die_usage("state directory path too long for a socket: " + state);
    }

    prctl(PR_SET_CHILD_SUBREAPER, 1);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGCHLD);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    std::fflush(nullptr);

    pid_t board = fork();
    if (board < 0)
        die_usage(std::string("fork: ") + std::strerror(errno));
    if (board == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        std::exit(board_main(o, state));
    }

    int code = 1;
    while (true) {
        siginfo_t si;
        if (sigwaitinfo(&set, &si) < 0)
            continue;
        if (si.si_signo != SIGCHLD) {
            if (sent_by_process(si))
                kill(board, si.si_signo);
            continue;
        }
        int status;
        pid_t p;
        bool done = false;
        while ((p = waitpid(-1, &status, WNOHANG)) > 0) {
            if (p == board) {
                code = status_to_exit(status);
                if (WIFSIGNALED(status))
                    std::fprintf(stderr, "vboard: the board process died of signal %d\n",
                                 WTERMSIG(status));
                done = true;
            }
        }
        if (done)
            break;
    }
    /* Whatever the board could not stop (it died, or a process escaped it). */
    end_children(1000);
    if (own_state) {
        std::error_code ec;
        fs::remove_all(state, ec);
    }
    return code;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 2 && std::strcmp(argv[1], "run") == 0)
        return run(argc, argv);
    if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        usage(stdout);
        return 0;
    }
    usage(stderr);
    return EXIT_USAGE;
}
