#define FUSE_USE_VERSION 312
#include "board_fs.h"

#include <fuse3/fuse_lowlevel.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <set>
#include <sys/stat.h>
#include <vector>

#include "board.h"

namespace vboard
{

namespace
{

enum class Kind { Dir, I2c, Cam, GpioExport, GpioAttr, Stats };

struct Node {
    fuse_ino_t ino;
    fuse_ino_t parent;
    std::string name;
    Kind kind;
    int arg = 0; /* capture device, GPIO line or channel */
    GpioAttr attr = GpioAttr::Value;
};

constexpr unsigned I2C_SLAVE = 0x0703;
constexpr unsigned CAM_IOC_SET_NO_VIDEO = 0x80042a03;
/* i2c-dev caps a transfer at this size. */
constexpr size_t I2C_MAX_TRANSFER = 8192;

struct OpenFile {
    const Node *node;
    std::atomic<unsigned> address{0};
    uint64_t seen_events = 0;
    fuse_pollhandle *ph = nullptr;
};

} // namespace

struct BoardFs::Impl {
    explicit Impl(Board &b) : board(b) { build(); }

    Board &board;
    std::vector<Node> nodes; /* index ino - 1 */
    fuse_session *session = nullptr;
    std::thread loop;
    bool mounted = false;

    std::mutex mutex; /* guards open files' poll state */
    std::set<OpenFile *> irq_pollers;

    fuse_ino_t add(fuse_ino_t parent, std::string name, Kind kind, int arg = 0,
                   GpioAttr attr = GpioAttr::Value)
    {
        fuse_ino_t ino = nodes.size() + 1;
        nodes.push_back(Node{ino, parent, std::move(name), kind, arg, attr});
        return ino;
    }

    void build()
    {
        add(0, "", Kind::Dir);
        add(FUSE_ROOT_ID, "i2c-7", Kind::I2c);
        for (int i = 0; i < NUM_CHANNELS; i++)
            add(FUSE_ROOT_ID, "cam" + std::to_string(i), Kind::Cam, i);
        fuse_ino_t gpio = add(FUSE_ROOT_ID, "gpio", Kind::Dir);
        add(gpio, "export", Kind::GpioExport);
        add(gpio, "unexport", Kind::GpioExport);
        for (int l = 0; l < LINE_COUNT; l++) {
            fuse_ino_t dir = add(gpio, line_name(l), Kind::Dir, l);
            add(dir, "value", Kind::GpioAttr, l, GpioAttr::Value);
            add(dir, "direction", Kind::GpioAttr, l, GpioAttr::Direction);
            add(dir, "edge", Kind::GpioAttr, l, GpioAttr::Edge);
        }
        fuse_ino_t driver = add(FUSE_ROOT_ID, "driver", Kind::Dir);
        fuse_ino_t veltra = add(driver, "veltra", Kind::Dir);
        fuse_ino_t stats = add(veltra, "stats", Kind::Dir);
        for (int i = 0; i < NUM_CHANNELS; i++)
            add(stats, "no_video_" + std::to_string(i), Kind::Stats, i);
    }

    const Node *node(fuse_ino_t ino) const
    {
        if (ino < 1 || ino > nodes.size())
            return nullptr;
        return &nodes[ino - 1];
    }

    /* A line's directory and files disappear with the line; so does a
     * statistics file that a fault removed. */
    bool visible(const Node *n)
    {
        for (const Node *p = n; p && p->ino != FUSE_ROOT_ID; p = node(p->parent)) {
            if (p->kind == Kind::Stats && !board.stats_present(p->arg))
                return false;
            if (p->kind == Kind::GpioAttr && !board.gpio_present(p->arg))
                return false;
            if (p->kind == Kind::Dir && p->parent != FUSE_ROOT_ID &&
                node(p->parent)->name == "gpio" && !board.gpio_present(p->arg))
                return false;
        }
        return true;
    }

    static struct stat attr_of(const Node *n)
    {
        struct stat st = {};
        st.st_ino = n->ino;
        st.st_uid = 0;
        st.st_gid = 0;
        switch (n->kind) {
        case Kind::Dir:
            st.st_mode = S_IFDIR | 0755;
            st.st_nlink = 2;
            break;
        case Kind::I2c:
        case Kind::Cam:
            st.st_mode = S_IFREG | 0600;
            st.st_nlink = 1;
            break;
        case Kind::GpioExport:
            st.st_mode = S_IFREG | 0200;
            st.st_nlink = 1;
            break;
        case Kind::GpioAttr:
            st.st_mode = S_IFREG | 0644;
            st.st_nlink = 1;
            break;
        case Kind::Stats:
            st.st_mode = S_IFREG | 0444;
            st.st_nlink = 1;
            break;
        }
        st.st_size = n->kind == Kind::Dir ? 0 : 4096;
        st.st_blksize = 4096;
        return st;
    }

    void notify_irq()
    {
        std::lock_guard lk(mutex);
        for (OpenFile *f : irq_pollers) {
            if (f->ph) {
                fuse_lowlevel_notify_poll(f->ph);
                fuse_pollhandle_destroy(f->ph);
                f->ph = nullptr;
            }
        }
    }
};

namespace
{

BoardFs::Impl *impl_of(fuse_req_t req)
{
    return static_cast<BoardFs::Impl *>(fuse_req_userdata(req));
}

OpenFile *file_of(fuse_file_info *fi)
{
    return reinterpret_cast<OpenFile *>(fi->fh);
}

void reply_entry(fuse_req_t req, const Node *n)
{
    fuse_entry_param e = {};
    e.ino = n->ino;
    e.attr = BoardFs::Impl::attr_of(n);
    e.attr_timeout = 0;
    e.entry_timeout = 0;
    fuse_reply_entry(req, &e);
}

void op_lookup(fuse_req_t req, fuse_ino_t parent, const char *name)
{
    auto *impl = impl_of(req);
    for (const Node &n : impl->nodes) {
        if (n.parent == parent && n.name == name && n.ino != FUSE_ROOT_ID) {
            if (!impl->visible(&n))
                break;
            reply_entry(req, &n);
            return;
        }
    }
    fuse_reply_err(req, ENOENT);
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info *)
{
    auto *impl = impl_of(req);
    const Node *n = impl->node(ino);
    if (!n || !impl->visible(n)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    struct stat st = BoardFs::Impl::attr_of(n);
    fuse_reply_attr(req, &st, 0);
}

void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat *, int, fuse_file_info *fi)
{
    /* Truncation by "echo 1 > value" and friends: nothing to change. */
    op_getattr(req, ino, fi);
}

void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info *)
{
    auto *impl = impl_of(req);
    const Node *dir = impl->node(ino);
    if (!dir || dir->kind != Kind::Dir) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    std::vector<std::pair<std::string, const Node *>> entries = {{".", dir}, {"..", dir}};
    for (const Node &n : impl->nodes) {
        if (n.parent == ino && n.ino != FUSE_ROOT_ID && impl->visible(&n))
            entries.emplace_back(n.name, &n);
    }
    std::vector<char> buf(size);
    size_t used = 0;
    for (size_t i = static_cast<size_t>(off); i < entries.size(); i++) {
        struct stat st = BoardFs::Impl::attr_of(entries[i].second);
        size_t len = fuse_add_direntry(req, buf.data() + used, size - used,
                                       entries[i].first.c_str(), &st, static_cast<off_t>(i + 1));
        if (len > size - used)
            break;
        used += len;
    }
    fuse_reply_buf(req, buf.data(), used);
}

void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi)
{
    auto *impl = impl_of(req);
    const Node *n = impl->node(ino);
    if (!n || !impl->visible(n)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    if (n->kind == Kind::Dir) {
        fuse_reply_err(req, EISDIR);
        return;
    }
    auto *f = new OpenFile{};
    f->node = n;
    if (n->kind == Kind::GpioAttr && n->arg == LINE_INTERRUPT && n->attr == GpioAttr::Value) {
        std::lock_guard lk(impl->mutex);
        /* A freshly opened value file has seen every edge so far. */
        f->seen_events = impl->board.gpio_events(LINE_INTERRUPT);
        impl->irq_pollers.insert(f);
    }
    fi->fh = reinterpret_cast<uint64_t>(f);
    fi->direct_io = 1;
    fi->keep_cache = 0;
    if (fuse_reply_open(req, fi) != 0) {
        std::lock_guard lk(impl->mutex);
        impl->irq_pollers.erase(f);
        delete f;
    }
}

void op_release(fuse_req_t req, fuse_ino_t, fuse_file_info *fi)
{
    auto *impl = impl_of(req);
    OpenFile *f = file_of(fi);
    {
        std::lock_guard lk(impl->mutex);
        impl->irq_pollers.erase(f);
        if (f->ph)
            fuse_pollhandle_destroy(f->ph);
    }
    delete f;
    fuse_reply_err(req, 0);
}

void reply_text(fuse_req_t req, const std::string &text, size_t size, off_t off)
{
    if (off < 0 || static_cast<size_t>(off) >= text.size()) {
        fuse_reply_buf(req, nullptr, 0);
        return;
    }
    fuse_reply_buf(req, text.data() + off, std::min(size, text.size() - off));
}

void op_read(fuse_req_t req, fuse_ino_t, size_t size, off_t off, fuse_file_info *fi)
{
    auto *impl = impl_of(req);
    OpenFile *f = file_of(fi);
    const Node *n = f->node;
    switch (n->kind) {
    case Kind::I2c: {
        std::vector<uint8_t> buf(std::min(size, I2C_MAX_TRANSFER));
        int r = impl->board.i2c_read(f->address.load(), buf.data(), buf.size());
        if (r < 0)
            fuse_reply_err(req, -r);
        else
            fuse_reply_buf(req, reinterpret_cast<const char *>(buf.data()), r);
        return;
    }
    case Kind::GpioAttr: {
        if (n->arg == LINE_INTERRUPT && n->attr == GpioAttr::Value) {
            /* Reading the value acknowledges the edges seen so far. */
            std::lock_guard lk(impl->mutex);
            f->seen_events = impl->board.gpio_events(LINE_INTERRUPT);
        }
        reply_text(req, impl->board.gpio_read(n->arg, n->attr), size, off);
        return;
    }
    case Kind::Stats:
        reply_text(req, impl->board.stats_content(n->arg), size, off);
        return;
    case Kind::GpioExport:
        fuse_reply_err(req, EIO);
        return;
    case Kind::Cam:
    case Kind::Dir:
        fuse_reply_err(req, EINVAL);
        return;
    }
}

void op_write(fuse_req_t req, fuse_ino_t, const char *buf, size_t size, off_t, fuse_file_info *fi)
{
    auto *impl = impl_of(req);
    OpenFile *f = file_of(fi);
    const Node *n = f->node;
    switch (n->kind) {
    case Kind::I2c: {
        int r = impl->board.i2c_write(f->address.load(), reinterpret_cast<const uint8_t *>(buf),
                                      std::min(size, I2C_MAX_TRANSFER));
        if (r < 0)
            fuse_reply_err(req, -r);
        else
            fuse_reply_write(req, r);
        return;
    }
    case Kind::GpioAttr: {
        int r = impl->board.gpio_write(n->arg, n->attr, std::string_view(buf, size));
        if (r < 0)
            fuse_reply_err(req, -r);
        else
            fuse_reply_write(req, size);
        return;
    }
    case Kind::GpioExport:
        /* The board's lines are named and always exported. */
        fuse_reply_write(req, size);
        return;
    case Kind::Stats:
        fuse_reply_err(req, EIO);
        return;
    case Kind::Cam:
    case Kind::Dir:
        fuse_reply_err(req, EINVAL);
        return;
    }
}

void op_ioctl(fuse_req_t req, fuse_ino_t, unsigned int cmd, void *arg, fuse_file_info *fi,
              unsigned flags, const void *, size_t, size_t)
{
    auto *impl = impl_of(req);
    OpenFile *f = file_of(fi);
    if (flags & FUSE_IOCTL_COMPAT) {
        fuse_reply_err(req, ENOSYS);
        return;
    }
    /* Both requests take their argument by value; the reply carries no data
     * so the kernel copies nothing back to the caller's "pointer". */
    auto value = reinterpret_cast<uintptr_t>(arg);
    if (f->node->kind == Kind::I2c && cmd == I2C_SLAVE) {
        int r = impl->board.i2c_bind(value);
        if (r < 0) {
            fuse_reply_err(req, -r);
            return;
        }
        f->address.store(static_cast<unsigned>(value));
        fuse_reply_ioctl(req, 0, nullptr, 0);
        return;
    }
    if (f->node->kind == Kind::Cam && cmd == CAM_IOC_SET_NO_VIDEO) {
        int r = impl->board.cam_ioctl(f->node->arg, static_cast<uint32_t>(value));
        if (r < 0)
            fuse_reply_err(req, -r);
        else
            fuse_reply_ioctl(req, 0, nullptr, 0);
        return;
    }
    fuse_reply_err(req, ENOTTY);
}

void op_poll(fuse_req_t req, fuse_ino_t, fuse_file_info *fi, fuse_pollhandle *ph)
{
    auto *impl = impl_of(req);
    OpenFile *f = file_of(fi);
    unsigned revents = POLLIN | POLLRDNORM | POLLOUT | POLLWRNORM;
    const Node *n = f->node;
    if (n->kind == Kind::GpioAttr && n->arg == LINE_INTERRUPT && n->attr == GpioAttr::Value) {
        std::lock_guard lk(impl->mutex);
        if (impl->board.gpio_events(LINE_INTERRUPT) != f->seen_events)
            revents |= POLLPRI | POLLERR;
        if (ph) {
            if (f->ph)
                fuse_pollhandle_destroy(f->ph);
            f->ph = ph;
        }
    } else if (ph) {
        fuse_pollhandle_destroy(ph);
    }
    fuse_reply_poll(req, revents);
}

const fuse_lowlevel_ops OPS = [] {
    fuse_lowlevel_ops o = {};
    o.lookup = op_lookup;
    o.getattr = op_getattr;
    o.setattr = op_setattr;
    o.readdir = op_readdir;
    o.open = op_open;
    o.release = op_release;
    o.read = op_read;
    o.write = op_write;
    o.ioctl = op_ioctl;
    o.poll = op_poll;
    return o;
}();

} // namespace

BoardFs::BoardFs(Board &board) : impl_(std::make_unique<Impl>(board))
{
    board.set_irq_notifier([impl = impl_.get()] { impl->notify_irq(); });
}

BoardFs::~BoardFs()
{
    stop();
    impl_->board.set_irq_notifier(nullptr);
}

bool BoardFs::start(const std::string &mountpoint, std::string *error)
{
    std::vector<const char *> argv = {"vboard", "-o", "fsname=vboard,subtype=vboard"};
    if (geteuid() == 0)
        argv[2] = "fsname=vboard,subtype=vboard,allow_other";
    fuse_args args =
        FUSE_ARGS_INIT(static_cast<int>(argv.size()), const_cast<char **>(argv.data()));
    impl_->session = fuse_session_new(&args, &OPS, sizeof OPS, impl_.get());
    fuse_opt_free_args(&args);
    if (!impl_->session) {
        *error = "cannot create the FUSE session";
        return false;
    }
    if (fuse_session_mount(impl_->session, mountpoint.c_str()) != 0) {
        *error = "cannot mount the device files on " + mountpoint;
        fuse_session_destroy(impl_->session);
        impl_->session = nullptr;
        return false;
    }
    impl_->mounted = true;
    impl_->loop = std::thread([impl = impl_.get()] {
        fuse_loop_config *cfg = fuse_loop_cfg_create();
        fuse_loop_cfg_set_clone_fd(cfg, 0);
        fuse_loop_cfg_set_idle_threads(cfg, 4);
        fuse_session_loop_mt(impl->session, cfg);
        fuse_loop_cfg_destroy(cfg);
    });
    return true;
}

void BoardFs::stop()
{
    if (!impl_->session)
        return;
    fuse_session_exit(impl_->session);
    if (impl_->mounted) {
        /* Unmounting ends the workers' reads of the FUSE device. */
        fuse_session_unmount(impl_->session);
        impl_->mounted = false;
    }
    if (impl_->loop.joinable())
        impl_->loop.join();
    fuse_session_destroy(impl_->session);
    impl_->session = nullptr;
}

} // namespace vboard
