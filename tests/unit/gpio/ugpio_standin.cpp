#include "ugpio_standin.h"

#include <unistd.h>

#include "ugpio.h"

struct ugpio_t {
    std::string name;
    standin::LineScript *script;
    bool open = false;
};

namespace standin
{

std::map<std::string, LineScript> lines;
std::vector<std::string> calls;
int live_handles = 0;

void reset()
{
    lines.clear();
    calls.clear();
    live_handles = 0;
}

std::vector<std::string> calls_starting(const std::string &prefix)
{
    std::vector<std::string> out;
    for (const auto &call : calls)
        if (call.rfind(prefix, 0) == 0)
            out.push_back(call);
    return out;
}

} // namespace standin

using standin::calls;

ugpio_t *ugpio_request_named(const char *name)
{
    calls.push_back(std::string("request ") + name);
    auto it = standin::lines.find(name);
    if (it == standin::lines.end())
        return nullptr;
    auto &script = it->second;
    if (script.request_failures != 0) {
        if (script.request_failures > 0)
            script.request_failures--;
        return nullptr;
    }
    standin::live_handles++;
    return new ugpio_t{name, &script};
}

int ugpio_full_open(ugpio_t *ctx)
{
    calls.push_back("full_open " + ctx->name);
    int ret = 0;
    if (!ctx->script->full_open_results.empty()) {
        ret = ctx->script->full_open_results.front();
        ctx->script->full_open_results.pop_front();
    }
    ctx->open = ctx->open || ret >= 0;
    return ret;
}

int ugpio_open_ro(ugpio_t *ctx)
{
    calls.push_back("open_ro " + ctx->name);
    ctx->open = ctx->open || ctx->script->open_ro_result >= 0;
    return ctx->script->open_ro_result;
}

int ugpio_set_value(ugpio_t *ctx, int value)
{
    calls.push_back("set_value " + ctx->name + " " + std::to_string(value));
    return ctx->script->set_value_result;
}

int ugpio_get_value(ugpio_t *ctx)
{
    calls.push_back("get_value " + ctx->name);
    return ctx->script->get_value_result;
}

int ugpio_set_edge(ugpio_t *ctx, int flags)
{
    calls.push_back("set_edge " + ctx->name + " " + std::to_string(flags));
    return ctx->script->set_edge_result;
}

int ugpio_fd(ugpio_t *ctx)
{
    calls.push_back("fd " + ctx->name);
    return ctx->script->fd;
}

void ugpio_close(ugpio_t *ctx)
{
    calls.push_back("close " + ctx->name);
    ctx->open = false;
}

void ugpio_free(ugpio_t *ctx)
{
    calls.push_back("free " + ctx->name);
    standin::live_handles--;
    delete ctx;
}

/* Sleeps are recorded, not slept. */
int usleep(useconds_t usec) noexcept
{
    calls.push_back("usleep " + std::to_string(usec));
    return 0;
}
