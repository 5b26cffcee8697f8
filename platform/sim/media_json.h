// chip<T>/media.json: the media core's state as JSON, replaced whole (a new
// file renamed over the old) by a thread of its own ("sim_media_json")
// within 100 ms of every change of the core, and once a second while
// pictures flow.
#pragma once

#include <string>

int sim_media_json_open(std::string* err);
void sim_media_json_close();

// The document as it would be written now.
std::string sim_media_json_text();
