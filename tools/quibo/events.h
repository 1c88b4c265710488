// What `quibo` tells as JSON. Every object of events.jsonl carries "v", its version; the fields are
// documented in events.schema.json.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "run.h"
#include "tracks.h"

namespace quibo::recordings {

using Json = nlohmann::ordered_json;

constexpr int kEventsVersion = 1;

// Library version, kernels in use and digests of the parameters compiled in.
Json about_quibo();

// A number for JSON, rounded to some decimals; null where there is none.
Json rounded(double value, int decimals);

// What is known of a recording before it is played.
Json about_recording(const std::string& name, const FileTracks& tracks);

Json start_event(const std::string& name, const FileTracks& tracks);
Json wake_event(const std::string& name, int number, const Wake& wake);
Json levels_event(const std::string& name, int second, const float levels[kTracks + kOutputs]);
Json warning_event(const std::string& name, const std::string& text);
Json end_event(const std::string& name, const RunResult& result);

// One line, UTF-8 whatever the file's name was.
std::string to_line(const Json& event);

}  // namespace quibo::recordings
