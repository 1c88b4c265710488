// quibo run: recordings in, outputs and events out.

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <set>

#include "command.h"
#include "problem.h"
#include "session.h"
#include "show.h"
#include "workers.h"

namespace quibo::command {

namespace {

using recordings::Json;
using recordings::Wake;
using Clock = std::chrono::steady_clock;

struct RunRequest {
  std::vector<std::string> recordings;
  std::string folder, jsonl;
  ReadingOptions reading;
  bool raw_timing = false, report = false;
  size_t jobs = 1;
};

// A folder per recording: its name without the ending, made different where two are alike.
std::vector<std::string> folders(const RunRequest& request) {
  std::vector<std::string> list;
  std::set<std::string> taken;
  for (const std::string& path : request.recordings) {
    std::string name = path == "-" ? "stdin" : std::filesystem::path(path).stem().string();
    if (name.empty()) name = "recording";
    if (request.folder.empty()) name += ".quibo";
    std::string different = name;
    for (int i = 2; !taken.insert(different).second; ++i)
      different = name + "-" + std::to_string(i);
    if (request.folder.empty()) {
      list.push_back(different);
    } else {
      list.push_back(request.recordings.size() == 1 ? request.folder
                                                    : request.folder + "/" + different);
    }
  }
  return list;
}

// What workers send.
constexpr char kLine = 'l', kNote = 'n', kEvent = 'e', kProgress = 'p';

class Show {
 public:
  explicit Show(const RunRequest& request)
      : request_(request),
        people_(request.jsonl == "-" ? stderr : stdout),
        bar_(isatty(STDERR_FILENO) != 0),
        started_(Clock::now()),
        done_(request.recordings.size()),
        total_(request.recordings.size(), -1.0),
        ends_(request.recordings.size()) {}

  void receive(size_t index, char kind, const std::string& text) {
    if (kind == kProgress) {
      sscanf(text.c_str(), "%lf %lf", &done_[index], &total_[index]);
      progress();
      return;
    }
    clear_bar();
    if (kind == kEvent) {
      if (request_.jsonl == "-") say(stdout, text);
      const Json event = Json::parse(text, nullptr, false);
      if (event.is_object() && event["type"] == "end") ends_[index] = event;
      return;
    }
    const std::string name =
        request_.recordings.size() > 1 ? request_.recordings[index] + ": " : "";
    say(kind == kNote ? stderr : people_, name + text + "\n");
  }

  void end(size_t index, int status) {
    clear_bar();
    if (status < 0) {
      fprintf(stderr, "%s: ended by signal %d\n", request_.recordings[index].c_str(), -status);
      status = kFileProblem;
    }
    worst_ = std::max(worst_, status);
    if (ends_[index].is_object() && request_.recordings.size() == 1) summary(ends_[index]);
  }

  void table() const {
    size_t width = 9;
    for (const std::string& name : request_.recordings) width = std::max(width, name.size());
    fprintf(people_, "\n%-*s  %10s  %5s  %8s  %9s\n", static_cast<int>(width), "recording",
            "length", "wakes", "echo, dB", "% of core");
    for (size_t i = 0; i < ends_.size(); ++i) {
      fprintf(people_, "%-*s  ", static_cast<int>(width), request_.recordings[i].c_str());
      if (!ends_[i].is_object()) {
        fprintf(people_, "%10s\n", "not played");
        continue;
      }
      const Json& e = ends_[i];
      const std::string echo = e["echo_reduction_db"].is_null()
                                   ? "-"
                                   : decimal(-e["echo_reduction_db"].get<double>(), 1);
      fprintf(people_, "%10s  %5d  %8s  %9s\n", clock_time(e["seconds"].get<double>()).c_str(),
              e["wakes"].get<int>(), echo.c_str(),
              decimal(100 * e["core_share"].get<double>(), 2).c_str());
    }
  }

  int worst() const { return worst_; }
  bool output_lost() const { return output_lost_; }

 private:
  static std::string decimal(double value, int decimals) {
    char text[32];
    snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
  }

  void say(FILE* file, const std::string& text) {
    fputs(text.c_str(), file);
    if (fflush(file) != 0 || ferror(file)) output_lost_ = true;
  }

  void summary(const Json& e) {
    std::string text = clock_time(e["seconds"].get<double>()) + ", " +
                       std::to_string(e["wakes"].get<int>()) +
                       (e["wakes"] == 1 ? " wake, " : " wakes, ");
    if (e["echo_reduction_db"].is_null()) {
      text += "at no time plainly the device alone";
    } else {
      text += "echo " + decimal(e["echo_reduction_db"].get<double>(), 1) +
              " dB down where only the device played (" +
              std::to_string(e["only_device_seconds"].get<int>()) + " s)";
    }
    text += ", " + decimal(100 * e["core_share"].get<double>(), 2) + " % of one core";
    if (e["stopped"] == true) text += "; stopped before the end";
    say(people_, text + "\n");
  }

  void clear_bar() {
    if (bar_ && bar_shown_) fputs("\r\033[K", stderr);
    bar_shown_ = false;
  }

  // One bar over all recordings, several times a second.
  void progress() {
    if (!bar_ || Clock::now() - drawn_ < std::chrono::milliseconds(200)) return;
    drawn_ = Clock::now();
    double done = 0, total = 0;
    for (size_t i = 0; i < done_.size(); ++i) {
      done += done_[i];
      total = total_[i] < 0 || total < 0 ? -1 : total + total_[i];
    }
    const double elapsed = std::chrono::duration<double>(drawn_ - started_).count();
    const double speed = done / std::max(elapsed, 1e-3);
    if (total > 0) {
      constexpr int kWidth = 30;
      const int filled = static_cast<int>(kWidth * std::min(1.0, done / total));
      fprintf(stderr, "\r[%s%s] %3.0f %%  %.0f times real time, %s left\033[K",
              std::string(static_cast<size_t>(filled), '#').c_str(),
              std::string(static_cast<size_t>(kWidth - filled), '.').c_str(), 100 * done / total,
              speed, clock_time((total - done) / std::max(speed, 1e-3), 0).c_str());
    } else {
      fprintf(stderr, "\r%s  %.0f times real time\033[K", clock_time(done, 0).c_str(), speed);
    }
    bar_shown_ = true;
  }

  const RunRequest& request_;
  FILE* people_;
  bool bar_, bar_shown_ = false, output_lost_ = false;
  Clock::time_point started_, drawn_{};
  std::vector<double> done_, total_;  // s
  std::vector<Json> ends_;
  int worst_ = kAllFine;
};

int play(const RunRequest& request, const std::string& path, const std::string& folder,
         const Channel& channel) {
  recordings::SessionOptions options;
  options.run.raw_timing = request.raw_timing;
  options.folder = folder;
  options.events = request.jsonl == "-" ? "" : request.jsonl;
  options.report = request.report;
  recordings::SessionCallbacks callbacks;
  callbacks.note = [&](const std::string& note) { channel.send(kNote, note); };
  callbacks.wake = [&](int number, const Wake& wake) {
    channel.send(kLine, wake_line(number, wake));
  };
  callbacks.event = [&](const Json& event) {
    if (request.jsonl == "-" || event["type"] == "end")
      channel.send(kEvent, recordings::to_line(event));
  };
  Clock::time_point told{};
  callbacks.go_on = [&](int64_t done, int64_t total) {
    if (Clock::now() - told > std::chrono::milliseconds(100)) {
      told = Clock::now();
      const auto seconds = [](int64_t samples) {
        return std::to_string(static_cast<double>(samples) / QUIBO_SAMPLE_RATE);
      };
      channel.send(kProgress, seconds(done) + " " + seconds(total));
    }
    return !interrupted();
  };
  try {
    options.input = request.reading.parse();
    const recordings::SessionResult result = recordings::run_session(path, options, callbacks);
    for (const std::string& line : result.warnings) channel.send(kNote, "warning: " + line);
    if (result.run.stopped) return kInterrupted;
    return result.warnings.empty() ? kAllFine : kSomethingToLookAt;
  } catch (const recordings::WrongUse& problem) {
    channel.send(kNote, (request.recordings.size() == 1 ? path + ": " : "") + problem.what());
    return kWrongUse;
  } catch (const std::exception& problem) {
    channel.send(kNote, (request.recordings.size() == 1 ? path + ": " : "") + problem.what());
    return kFileProblem;
  }
}

int run(const RunRequest& request) {
  if (request.recordings.size() > 1 && !request.jsonl.empty() && request.jsonl != "-") {
    throw recordings::WrongUse(
        "--jsonl FILE takes one recording; each of several has its events.jsonl");
  }
  request.reading.parse();
  note_interrupts();
  const std::vector<std::string> to = folders(request);
  Show show(request);
  Workers workers;
  workers.work = [&](size_t i, const Channel& channel) {
    return play(request, request.recordings[i], to[i], channel);
  };
  workers.receive = [&](size_t i, char kind, const std::string& text) {
    show.receive(i, kind, text);
  };
  workers.ended = [&](size_t i, int status) { show.end(i, status); };
  workers.run(request.recordings.size(), request.jobs);
  if (request.recordings.size() > 1) show.table();
  if (show.output_lost()) {
    fprintf(stderr, "quibo: cannot write to standard output\n");
    return kFileProblem;
  }
  return show.worst();
}

}  // namespace

Action add_run(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "run",
      "Play recordings through the front end: writes the cleaned microphones, every wake and "
      "the levels.");
  auto request = std::make_shared<RunRequest>();
  command
      ->add_option("RECORDING", request->recordings,
                   "WAV, RF64, FLAC or whatever libsndfile reads, of any rate and depth; - is "
                   "standard input.")
      ->required();
  command
      ->add_option("-o,--output", request->folder,
                   "Folder for clean.wav, mic1.wav .. mic3.wav (echo-cancelled) and events.jsonl; "
                   "of several recordings each gets a folder in it. Without it RECORDING.quibo.")
      ->type_name("DIR");
  request->reading.add_to(*command);
  command->add_flag("--raw-timing", request->raw_timing,
                    "Leave the outputs as late as they are, 1.25 ms and 161 ms, instead of lining "
                    "them up with the recording.");
  command
      ->add_option("--jsonl", request->jsonl,
                   "File for the events instead of events.jsonl; - writes them to standard output "
                   "as well, and what is for people to standard error.")
      ->type_name("FILE");
  command->add_flag("--report", request->report,
                    "Also write report.html, one page to look at and listen to.");
  command->add_option("-j,--jobs", request->jobs, "Recordings to play at the same time.")
      ->check(CLI::Range(1, 1024))
      ->type_name("N")
      ->capture_default_str();
  command->footer(
      "Example:\n  quibo run kitchen.wav -o kitchen --report\n"
      "  arecord -D hw:1 -c 4 -r 16000 -f S16_LE -t raw | quibo run - --raw 4 --jsonl -");
  return [request] { return run(*request); };
}

}  // namespace quibo::command
