// The recording's report: <out>/report.html, a page a person opens from the
// output folder (no server, nothing fetched from the network).
//
// Per slave: its status polls (heartbeats and the cameras' measured frame
// rates over time, plotted, and the last reply), the table of its streams
// with every gap and violation, and one card per camera: the latest
// snapshot as a thumbnail linking to the picture, the overlay bitmap read
// back from the board, the motion heat map and the bit-rate and frame-rate
// plot of the camera's streams over the recording. The screen layout
// (layout.png), when one was drawn into the folder, and the recorder's own
// findings come first. Every stream's .h264 and .mp4 files are linked.
//
// Plots are drawn by gnuplot from data files under <out>/report/; a picture
// that could not be made is left out of the page and the reason listed.
#pragma once

#include <string>
#include <vector>

#include "master/streams.h"

namespace tmaster {

struct report_result {
    int rc = 0;                      // 0: the page was written
    std::string page;                // its path
    std::vector<std::string> notes;  // what is missing from it, and why
};

report_result write_report(const record_summary& s);

// Text made safe for HTML content and attribute values.
std::string html_escape(const std::string& text);

}  // namespace tmaster
