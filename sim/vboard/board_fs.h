/* The board's device files, served with the FUSE low-level interface so that
 * they behave like the kernel's: i2c-dev with its I2C_SLAVE ioctl, sysfs GPIO
 * lines whose value file reports edges to poll(), the capture driver's
 * statistics and its capture devices' by-value ioctl. Layout under the mount
 * point (bind-mounted by `vboard run` at the daemon's fixed paths):
 *
 *   i2c-7, cam0..cam3                      -> /dev
 *   gpio/{export,unexport}, gpio/<line>/{value,direction,edge}
 *                                          -> /sys/class/gpio
 *   driver/veltra/stats/no_video_0..3      -> /proc/driver
 *
 * Every file is opened for direct I/O, so each read and write reaches the
 * board with the caller's own size and nothing is cached. */
#pragma once

#include <memory>
#include <string>
#include <thread>

namespace vboard
{

class Board;

class BoardFs
{
  public:
    explicit BoardFs(Board &board);
    ~BoardFs();
    BoardFs(const BoardFs &) = delete;
    BoardFs &operator=(const BoardFs &) = delete;

    /* Mounts on an existing empty directory and starts the worker threads. */
    bool start(const std::string &mountpoint, std::string *error);
    /* Unmounts and joins the workers; safe to call twice. */
    void stop();

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace vboard
