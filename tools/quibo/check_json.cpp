#include "check_json.h"

#include <cmath>

namespace quibo::recordings {

Json check_json(const CheckResult& result) {
  Json json;
  json["verdict"] = result.verdict();
  json["findings"] = Json::array();
  for (const Finding& finding : result.findings) {
    json["findings"].push_back(
        {{"id", finding.id},
         {"severity", name_of(finding.severity)},
         {"channel", finding.channel.empty() ? Json(nullptr) : Json(finding.channel)},
         {"start", rounded(finding.start, 3)},
         {"end", rounded(finding.end, 3)},
         {"what", finding.what},
         {"how_bad", finding.how_bad},
         {"do", finding.advice}});
  }
  for (int t = 0; t < kTracks; ++t) {
    const ChannelState& state = result.channels[t];
    json["channels"][kTrackNames[t]] = {{"level_dbfs", rounded(state.level, 1)},
                                        {"peak_dbfs", rounded(state.peak, 1)},
                                        {"floor_dbfs", rounded(state.floor, 0)},
                                        {"dc", rounded(state.offset, 5)},
                                        {"clipped", state.clipped}};
  }
  Json& delay = json["reference_delay"];
  delay["reach_ms"] = {rounded(1000.0 * kReachFrom / QUIBO_SAMPLE_RATE, 2),
                       rounded(1000.0 * kReachTo / QUIBO_SAMPLE_RATE, 1)};
  delay["points"] = Json::array();
  for (const DelayPoint& point : result.delay) {
    delay["points"].push_back({{"seconds", rounded(point.seconds, 2)},
                               {"ms", rounded(1000 * point.delay, 3)},
                               {"confidence", rounded(point.confidence, 2)}});
  }
  delay["drift_ppm"] = rounded(result.drift_ppm, 1);
  return json;
}

void feed(Check* check, FrameReader* frames) {
  frames->on_read = [check](const float* const tracks[kTracks], int count) {
    check->add_samples(tracks, count);
  };
}

Json checked_recording(const std::string& name, const FileTracks& tracks,
                       const CheckResult& result) {
  Json json = {{"v", 1}};
  json.update(about_recording(name, tracks));
  json["seconds"] = rounded(result.seconds, 3);
  json["warnings"] = tracks.warnings();
  json.update(check_json(result));
  return json;
}

CheckResult check_recording(FileTracks& tracks, const std::function<bool()>& go_on) {
  FrameReader frames(tracks);
  Check check(tracks.rate());
  feed(&check, &frames);
  for (Frame frame; frames.next(&frame);) {
    if (frame.samples == QUIBO_FRAME) check.add_frame(frame.track);
    if (go_on && !go_on()) break;
  }
  return check.finish();
}

}  // namespace quibo::recordings
