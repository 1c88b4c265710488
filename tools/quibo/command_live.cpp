// quibo live: a microphone array through the front end as it is captured (ALSA).

#include <alsa/asoundlib.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "command.h"
#include "events.h"
#include "outputs.h"
#include "problem.h"
#include "run.h"
#include "samples.h"
#include "show.h"
#include "workers.h"

namespace quibo::command {

namespace {

using namespace recordings;

struct LiveRequest {
  std::string device = "default", channels, encoding = "plain", record, jsonl;
  int channel_count = 4, rate = QUIBO_SAMPLE_RATE;
  double seconds = 0;
};

// The tracks of a capture device. Reads end with an interrupt or after `seconds`.
class AlsaTracks : public TrackSource {
 public:
  explicit AlsaTracks(const LiveRequest& request)
      : scrambled_(request.encoding == "scrambled"),
        channels_(request.channel_count),
        rate_(request.rate) {
    if (scrambled_ && rate_ != QUIBO_SAMPLE_RATE)
      throw WrongUse("scrambled microphones are captured at 16000 Hz");
    const std::optional<ChannelMap> guess = guess_channel_map(channels_);
    if (request.channels.empty() && !guess) {
      throw WrongUse(std::to_string(channels_) + " channels: say which is which with --channels");
    }
    map_ = request.channels.empty() ? *guess : parse_channel_map(request.channels, channels_);
    if (request.seconds > 0) left_ = std::llround(request.seconds * rate_);
    constexpr unsigned kLatency = 500000;  // us of buffer
    int error = snd_pcm_open(&device_, request.device.c_str(), SND_PCM_STREAM_CAPTURE, 0);
    if (error == 0) {
      error = snd_pcm_set_params(device_, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED,
                                 static_cast<unsigned>(channels_), static_cast<unsigned>(rate_), 0,
                                 kLatency);
    }
    if (error < 0) {
      if (device_) snd_pcm_close(device_);
      throw FileProblem("cannot capture " + std::to_string(channels_) + " channels of 16 bit at " +
                        std::to_string(rate_) + " Hz from " + request.device + ": " +
                        snd_strerror(error));
    }
    if (!request.record.empty())
      record_ = std::make_unique<WavFile>(request.record, channels_, rate_);
  }
  ~AlsaTracks() override { snd_pcm_close(device_); }

  int rate() const override { return rate_; }
  int64_t frames() const override { return left_; }
  const ChannelMap& map() const { return map_; }
  int overruns() const { return overruns_; }

  int read(float* const tracks[kTracks], int frames) override {
    // Little at a time: a wake is to be told when it happens.
    const int64_t wanted = std::min<int64_t>({frames, QUIBO_FRAME, left_ < 0 ? frames : left_});
    interleaved_.resize(static_cast<size_t>(wanted) * static_cast<size_t>(channels_));
    snd_pcm_sframes_t got = 0;
    while (wanted > 0 && !interrupted()) {
      got = snd_pcm_readi(device_, interleaved_.data(), static_cast<snd_pcm_uframes_t>(wanted));
      if (got > 0) break;
      if (got == -EPIPE) ++overruns_;
      if (got == 0 || snd_pcm_recover(device_, static_cast<int>(got), 1) < 0) {
        if (got < 0 && got != -EINTR)
          throw FileProblem(std::string("the capture ended: ") +
                            snd_strerror(static_cast<int>(got)));
        if (got == 0) break;
      }
      got = 0;
    }
    if (got <= 0) return 0;
    if (left_ > 0) left_ -= got;
    if (record_) record_->write(interleaved_.data(), static_cast<int>(got) * channels_);
    for (int t = 0; t < kTracks; ++t) {
      for (int i = 0; i < got; ++i) {
        const int at = i * channels_ + map_.channel[t];
        int16_t x = interleaved_[static_cast<size_t>(at)];
        if (scrambled_ && t != kRef) dec_data(&x, 1);
        tracks[t][i] = to_float(x);
      }
    }
    return static_cast<int>(got);
  }

  void keep_record() {
    if (!record_) return;
    record_->finish();
    record_->keep();
  }

 private:
  bool scrambled_;
  int channels_, rate_;
  ChannelMap map_{};
  int64_t left_ = -1;
  int overruns_ = 0;
  snd_pcm_t* device_ = nullptr;
  std::unique_ptr<WavFile> record_;
  std::vector<int16_t> interleaved_;
};

// One line that is drawn again every second.
void draw_meters(int second, const float levels[kTracks + kOutputs], int overruns) {
  fprintf(stderr, "\r%s ", clock_time(second + 1, 0).c_str());
  for (int t = 0; t < kTracks; ++t) {
    fprintf(stderr, " %s %4.0f", kTrackNames[t], static_cast<double>(levels[t]));
  }
  fprintf(stderr, "  clean %4.0f dBFS", static_cast<double>(levels[kTracks + kClean]));
  if (overruns > 0) fprintf(stderr, "  overruns %d", overruns);
  fprintf(stderr, "\033[K");
}

int live(const LiveRequest& request) {
  note_interrupts();
  AlsaTracks tracks(request);
  FrameReader frames(tracks);
  const bool meters = isatty(STDERR_FILENO) != 0;
  FILE* people = request.jsonl == "-" ? stderr : stdout;
  std::unique_ptr<OutputFile> events;
  if (!request.jsonl.empty() && request.jsonl != "-")
    events = std::make_unique<OutputFile>(request.jsonl);
  const auto tell = [&](const Json& event) {
    const std::string line = to_line(event);
    if (events) events->write(line.data(), line.size());
    if (request.jsonl != "-") return;
    fputs(line.c_str(), stdout);
    if (fflush(stdout) != 0) throw FileProblem("cannot write to standard output");
  };
  fprintf(stderr, "listening on %s: %s; Ctrl-C ends\n", request.device.c_str(),
          describe(tracks.map()).c_str());

  RunCallbacks during;
  int wakes = 0, told_overruns = 0;
  during.wake = [&](const Wake& wake) {
    if (meters) fputs("\r\033[K", stderr);
    fprintf(people, "%s\n", wake_line(++wakes, wake).c_str());
    fflush(people);
    tell(wake_event(request.device, wakes, wake));
  };
  during.second = [&](int second, const float levels[kTracks + kOutputs]) {
    if (meters) draw_meters(second, levels, tracks.overruns());
    tell(levels_event(request.device, second, levels));
    for (; told_overruns < tracks.overruns(); ++told_overruns) {
      const std::string text = "overrun " + std::to_string(told_overruns + 1) + " at " +
                               clock_time(second + 1, 0) + ": samples were lost";
      fprintf(stderr, "%s%s\n", meters ? "\r\033[K" : "", text.c_str());
      tell(warning_event(request.device, text));
    }
  };
  const RunResult result = run(frames, {}, during);
  tell(end_event(request.device, result));
  tracks.keep_record();
  if (events) {
    events->finish();
    events->keep();
  }
  fprintf(people, "%s%s, %d %s, %d overruns%s%s\n", meters ? "\r\033[K" : "",
          clock_time(static_cast<double>(result.samples) / QUIBO_SAMPLE_RATE).c_str(), wakes,
          wakes == 1 ? "wake" : "wakes", tracks.overruns(),
          request.record.empty() ? "" : ", recorded in ", request.record.c_str());
  return tracks.overruns() > 0 ? kSomethingToLookAt : kAllFine;
}

}  // namespace

Action add_live(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "live",
      "Listen to a capture device: prints every wake as it is heard, and shows the levels.");
  auto request = std::make_shared<LiveRequest>();
  command
      ->add_option("-D,--device", request->device,
                   "ALSA capture device, as `arecord -L` lists them.")
      ->type_name("NAME")
      ->capture_default_str();
  command->add_option("-c,--channel-count", request->channel_count, "Channels to capture.")
      ->check(CLI::Range(1, 64))
      ->type_name("N")
      ->capture_default_str();
  command
      ->add_option("-r,--rate", request->rate,
                   "Sample rate to capture with; resampled where it is not 16000.")
      ->check(CLI::Range(8000, 384000))
      ->type_name("HZ")
      ->capture_default_str();
  command
      ->add_option("--channels", request->channels, "Which channel is which, as for `quibo run`.")
      ->type_name("MAP");
  command
      ->add_option("--encoding", request->encoding, "How the microphones come: plain or scrambled.")
      ->check(CLI::IsMember({"plain", "scrambled"}))
      ->type_name("CODE")
      ->capture_default_str();
  command
      ->add_option(
          "--record", request->record,
          "Keep what is captured as a WAV file: `quibo run` on it gives the same bits again.")
      ->type_name("FILE");
  command->add_option("--jsonl", request->jsonl, "File for the events; - is standard output.")
      ->type_name("FILE");
  command->add_option("--seconds", request->seconds, "End after so long. Without it Ctrl-C ends.")
      ->type_name("N");
  command->footer("Example:\n  quibo live -D hw:1 -c 6 --record field.wav");
  return [request] { return live(*request); };
}

}  // namespace quibo::command
