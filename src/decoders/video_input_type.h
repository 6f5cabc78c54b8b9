/* The video system's per-input "video_type%d" setting. */
#pragma once

struct Channel;

void update_video_input_type(Channel *channel);
