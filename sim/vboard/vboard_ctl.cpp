/* vboard-ctl: drives a running virtual board over its control socket. */
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cli.h"
#include "control.h"

namespace fs = std::filesystem;
using namespace vboard;

namespace
{

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

void usage(FILE *out)
{
    std::fprintf(
        out,
        "usage: vboard-ctl [--state-dir DIR] COMMAND...\n"
        "  plug CH STANDARD RESOLUTION [long]   unplug CH\n"
        "  fault chip absent | chip nack all | chip nack REG | gpio missing NAME |\n"
        "        stats missing CH | stats empty CH | cam fail CH |\n"
        "        service NAME absent|failing|late [MS] | service NAME none | clear\n"
        "  status [--json]   regs PAGE   counters   log\n"
        "  get KEY [ARG]     (lock, no-video, camera, line-length, cam-ioctl, ptz, overlay,\n"
        "                     capture-mode, capture-frequency, video-type, connected, events\n"
        "                     with a channel; term N; irq; irq-edges; resets)\n"
        "  wait [--timeout S] ready | log TEXT | KEY [ARG] VALUE\n"
        "The board is the one in DIR, else in $VBOARD_STATE_DIR, else the only one running.\n");
}

/* Boards listening now: their control sockets are bound Unix sockets. */
std::set<std::string> running_boards()
{
    std::set<std::string> out;
    std::ifstream in("/proc/net/unix");
    std::string line;
    const std::string suffix = std::string("/") + CONTROL_SOCKET;
    while (std::getline(in, line)) {
        size_t sp = line.rfind(' ');
        if (sp == std::string::npos)
            continue;
        std::string path = line.substr(sp + 1);
        if (path.size() <= suffix.size() ||
            path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        std::string dir = path.substr(0, path.size() - suffix.size());
        if (fs::exists(dir + "/" + READY_FILE) && fs::exists(path))
            out.insert(dir);
    }
    return out;
}

bool find_state_dir(const char *given, std::string *dir, std::string *error)
{
    if (given) {
        *dir = given;
        return true;
    }
    if (const char *env = std::getenv("VBOARD_STATE_DIR"); env && *env) {
        *dir = env;
        return true;
    }
    auto boards = running_boards();
    if (boards.size() == 1) {
        *dir = *boards.begin();
        return true;
    }
    if (boards.empty()) {
        *error = "no running board found (give --state-dir)";
    } else {
        *error = "several boards are running, give --state-dir:";
        for (const auto &b : boards)
            *error += " " + b;
    }
    return false;
}

int print_reply(const CommandReply &reply)
{
    if (!reply.ok) {
        std::fprintf(stderr, "vboard-ctl: %s\n", reply.text.c_str());
        return EXIT_FAILED;
    }
    std::fputs(reply.text.c_str(), stdout);
    if (!reply.text.empty() && reply.text.back() != '\n')
        std::fputc('\n', stdout);
    return 0;
}

int wait_command(const std::string &socket, std::vector<std::string> args)
{
    double timeout_s = 10;
    if (args.size() >= 2 && args[0] == "--timeout") {
        char *end;
        timeout_s = std::strtod(args[1].c_str(), &end);
        if (*end || timeout_s < 0) {
            std::fprintf(stderr, "vboard-ctl: wait --timeout SECONDS\n");
            return EXIT_USAGE;
        }
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) {
        usage(stderr);
        return EXIT_USAGE;
    }
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(static_cast<long>(timeout_s * 1000));
    std::string what;
    std::string last;
    while (true) {
        CommandReply reply;
        std::string error;
        bool reached = false;
        if (args[0] == "ready" && args.size() == 1) {
            what = "the board to be ready";
            reached = control_request(socket, {"ping"}, &reply, &error) && reply.ok;
            last = reached ? "ready" : error;
        } else if (args[0] == "log" && args.size() == 2) {
            what = "'" + args[1] + "' in the log";
            if (control_request(socket, {"log"}, &reply, &error) && reply.ok)
                reached = reply.text.find(args[1]) != std::string::npos;
        } else if (args.size() >= 2) {
            std::vector<std::string> query = {"get"};
            query.insert(query.end(), args.begin(), args.end() - 1);
            const std::string &want = args.back();
            what = "get";
            for (size_t i = 1; i < query.size(); i++)
                what += " " + query[i];
            what += " = " + want;
            if (!control_request(socket, query, &reply, &error)) {
                last = error;
            } else if (!reply.ok) {
                std::fprintf(stderr, "vboard-ctl: %s\n", reply.text.c_str());
                return EXIT_USAGE;
            } else {
                last = reply.text;
                while (!last.empty() && last.back() == '\n')
                    last.pop_back();
                reached = last == want;
            }
        } else {
            usage(stderr);
            return EXIT_USAGE;
        }
        if (reached)
            return 0;
        if (std::chrono::steady_clock::now() >= deadline) {
            std::fprintf(stderr, "vboard-ctl: timed out waiting for %s%s%s\n", what.c_str(),
                         last.empty() ? "" : "; last: ", last.c_str());
            return EXIT_FAILED;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace

int main(int argc, char **argv)
{
    const char *state = nullptr;
    int i = 1;
    if (i < argc && (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0)) {
        usage(stdout);
        return 0;
    }
    if (i + 1 < argc && std::strcmp(argv[i], "--state-dir") == 0) {
        state = argv[i + 1];
        i += 2;
    }
    if (i >= argc) {
        usage(stderr);
        return EXIT_USAGE;
    }
    std::vector<std::string> args(argv + i, argv + argc);
    std::string dir, error;
    if (!find_state_dir(state, &dir, &error)) {
        if (args[0] == "wait" && !state) {
            std::fprintf(stderr, "vboard-ctl: %s\n", error.c_str());
            return EXIT_FAILED;
        }
        std::fprintf(stderr, "vboard-ctl: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    std::string socket = dir + "/" + CONTROL_SOCKET;
    if (args[0] == "wait")
        return wait_command(socket, std::vector<std::string>(args.begin() + 1, args.end()));
    CommandReply reply;
    if (!control_request(socket, args, &reply, &error)) {
        std::fprintf(stderr, "vboard-ctl: %s\n", error.c_str());
        return EXIT_FAILED;
    }
    return print_reply(reply);
}
