/* The capture driver's view of whether a capture device carries video. */
#pragma once

#include <cstdint>
#include <linux/ioctl.h>

/* Sets a capture device's no-video flag; the value is the ioctl argument
 * itself, not a pointer to it. */
#define CAM_IOC_SET_NO_VIDEO _IOR(0x2A, 3, uint32_t)

/* Sets the no-video flag of "/dev/cam<device>" to value (1: no video).
 * 0 on success, -1 on failure (logged). */
int32_t cam_set_no_video(int32_t device, uint32_t value);

/* The capture driver's no-video statistic of a channel: 0 when it sees video,
 * 1 when it does not or the statistic can't be read, -1 when the statistics
 * file can't be opened. */
int check_no_video(int32_t channel);
