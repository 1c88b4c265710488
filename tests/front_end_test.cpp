// The front end alone, among stub modules: which module it calls when and with what, its FIFOs, its
// printed lines and its codes.
//
// A stub logs its call as text, with handles and buffers under the names given to label(); what the
// front end should do then reads as a list. To connect a module: add its stubs below and its lines
// to the lists.

#include "api/WakeupApi.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/allocation.h"

namespace {

using Calls = std::vector<std::string>;
using Samples = std::vector<int16_t>;

constexpr unsigned kSeed = 20251103;
constexpr int kFrame = 1024, kBlock = 480;
constexpr int32_t kLang = 3;
constexpr int16_t kSuppressed = -77;

struct Stubs {
  Calls calls;
  std::map<const void*, std::string> labels;
  std::deque<std::string> instances;       // of all modules; a handle points to its name
  std::string failing;                     // the creation that fails
  std::array<float, kFrame> echo_free[3];  // what the cancellers return
  std::deque<int32_t> wakes;               // what the wake-up engine returns, then -1
  std::vector<Samples> mixes;              // what it was given
  std::deque<int32_t> angles;              // what the direction estimator returns, then -1
  std::vector<Samples> blocks[3];          // what it was given
  float canceller_frames[2];               // their addresses stand for a canceller's buffers
  int denoisers = 0;
  stMPO* limiter = nullptr;
};
Stubs stubs;

void label(const void* p, const std::string& name) {
  stubs.labels[p] = name;
}

std::string name_of(const void* p) {
  if (!p) return "NULL";
  const auto found = stubs.labels.find(p);
  return found == stubs.labels.end() ? "?" : found->second;
}

void log(const std::string& call) {
  stubs.calls.push_back(call);
}

// A new handle, or null where the test wants this creation to fail.
void* create(const std::string& name) {
  log("create " + name);
  if (name == stubs.failing) return nullptr;
  stubs.instances.push_back(name);
  label(&stubs.instances.back(), name);
  return &stubs.instances.back();
}

void release(const void* handle) {
  log("release " + name_of(handle));
}

int16_t stub_descrambled(int x) {
  return static_cast<int16_t>(x ^ 0x0155);
}

}  // namespace

void free_aec_denoise(void* handle) {
  log("free " + name_of(handle));
}

extern "C" {

void dec_data(int16_t* indata, int32_t len) {
  log("dec_data " + name_of(indata) + " " + std::to_string(len));
  for (int i = 0; i < len; ++i) indata[i] = stub_descrambled(indata[i]);
}

void* kesto_Laec_Post_init(void) {
  return create("canceller" + std::to_string(stubs.instances.size() + 1));
}

float* kesto_laec_micdata(void* handle) {
  label(&stubs.canceller_frames[0], name_of(handle) + ".mic");
  return &stubs.canceller_frames[0];
}

float* kesto_laec_yn(void* handle) {
  label(&stubs.canceller_frames[1], name_of(handle) + ".yn");
  return &stubs.canceller_frames[1];
}

int32_t QuibAncInit(void** handle, float min_scale) {
  *handle = create("denoiser" + std::to_string(++stubs.denoisers));
  log("floor " + std::to_string(min_scale));
  return *handle ? 0 : -1;
}

// Returns a failure, which the front end ignores. The output is the complement of the input.
int32_t QuibAncRun(void* handle, const int16_t* in, int16_t* out) {
  log(name_of(handle) + " " + name_of(in) + " -> " + name_of(out));
  for (int i = 0; i < kFrame; ++i) out[i] = static_cast<int16_t>(~in[i]);
  return -1;
}

int32_t QuibAncUnit(void** handle) {
  release(*handle);
  return -10;
}

int32_t QuibNAecInit(void** handle) {
  *handle = create("suppressor");
  return *handle ? 0 : -3;
}

int32_t QuibNAecRun(void* handle, const float* mic, const float* yn, int16_t* out) {
  log(name_of(handle) + " " + name_of(mic) + " " + name_of(yn) + " -> " + name_of(out));
  std::fill(out, out + kFrame, kSuppressed);
  return -1;
}

int32_t QuibNAecUnit(void* handle) {
  release(handle);
  return -1;
}

// Returns a failure, which the front end ignores.
int32_t kesto_Laec_Post_write(void* handle, const int16_t* mic, const int16_t* ref, float* out) {
  const std::string name = name_of(handle);
  log(name + " " + name_of(mic) + " " + name_of(ref) + " -> " + name_of(out));
  const auto& signal = stubs.echo_free[name.back() - '1'];
  std::copy(signal.begin(), signal.end(), out);
  return -1;
}

// The canceller's own number, ten times.
int32_t kesto_laec_restarts(void* handle) {
  return 10 * (name_of(handle).back() - '0');
}

int32_t kesto_Laec_Post_unit(void* handle) {
  release(handle);
  return -1;
}

int32_t kesto_customs_doa_init(KTDHandle* handle) {
  *handle = create("estimator");
  return *handle ? 0 : -1;
}

int32_t kesto_customs_doa_write(KTDHandle handle, const int16_t* mic1, const int16_t* mic2,
                                const int16_t* mic3, int16_t* outdata, int32_t rcg_ret) {
  log(name_of(handle) + " " + name_of(outdata) + " " + std::to_string(rcg_ret));
  const int16_t* mics[] = {mic1, mic2, mic3};
  for (int m = 0; m < 3; ++m) stubs.blocks[m].emplace_back(mics[m], mics[m] + kBlock);
  if (stubs.angles.empty()) return -1;
  const int32_t angle = stubs.angles.front();
  stubs.angles.pop_front();
  return angle;
}

void kesto_customs_doa_unit(KTDHandle handle) {
  release(handle);
}

int32_t QuibWakeupInit(void** handle, int32_t lang) {
  *handle = create("engine");
  EXPECT_EQ(lang, kLang);
  return *handle ? 0 : -3;
}

int32_t QuibWakeupWriteData(void* handle, const int16_t* samples) {
  log(name_of(handle));
  stubs.mixes.emplace_back(samples, samples + kBlock);
  if (stubs.wakes.empty()) return -1;
  const int32_t wake = stubs.wakes.front();
  stubs.wakes.pop_front();
  return wake;
}

int32_t QuibWakeupUnit(void* handle) {
  release(handle);
  return 0;
}

int32_t zq_MPO_Init(stMPO* mpo, int32_t fs, int32_t increasedB, int32_t maxLev) {
  log("zq_MPO_Init " + std::to_string(fs) + " " + std::to_string(increasedB) + " " +
      std::to_string(maxLev));
  stubs.limiter = mpo;
  return 0;
}

}  // extern "C"

namespace {

Samples random_samples(std::mt19937& random) {
  std::uniform_int_distribution<int> uniform(INT16_MIN, INT16_MAX);
  Samples x(kFrame);
  for (int16_t& v : x) v = static_cast<int16_t>(uniform(random));
  return x;
}

// The single-precision third is just below 1/3: whole thirds lose one towards zero.
int16_t mix_of(int sum) {
  return static_cast<int16_t>(sum / 3 - (sum % 3 == 0) * ((sum > 0) - (sum < 0)));
}

class FrontEnd : public testing::Test {
 protected:
  FrontEnd() {
    stubs = Stubs{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(Quibo_wakeup_init(&h, kLang), 0);
    printed = testing::internal::GetCapturedStdout();
    creation = stubs.calls;
    stubs.calls.clear();
    label(h->aec_fdata1, "aec_fdata1");
    label(h->aec_fdata2, "aec_fdata2");
    label(h->aec_fdata3, "aec_fdata3");
  }
  ~FrontEnd() override {
    if (h) Quibo_wakeup_unit(h);
  }

  // One call of the detection path without a wake.
  void detect(const Samples& mic1, const Samples& mic2, const Samples& mic3, int32_t len = kFrame) {
    int32_t wake = 77;
    EXPECT_EQ(
        Quibo_doa_three_write_data(h, &wake, mic1.data(), mic2.data(), mic3.data(), nullptr, len),
        -1);
    EXPECT_EQ(wake, -1);
  }

  // The calls of the 30 ms blocks, without those of the noise suppressors before them.
  static Calls block_calls() {
    Calls calls;
    for (const std::string& call : stubs.calls) {
      if (call.rfind("denoiser", 0) != 0) calls.push_back(call);
    }
    return calls;
  }

  KTWakeup h = nullptr;
  Calls creation;
  std::string printed;
};

TEST_F(FrontEnd, CreatesItsModulesInOrderAndPrintsTheVersion) {
  EXPECT_EQ(creation, (Calls{"create canceller1", "create canceller2", "create canceller3",
                             "create estimator", "create engine", "create denoiser1",
                             "floor 0.100000", "create denoiser2", "floor 0.300000",
                             "create denoiser3", "floor 0.300000", "create denoiser4",
                             "floor 0.300000", "create suppressor", "zq_MPO_Init 16000 20 -3"}));
  EXPECT_EQ(name_of(h->WAncHnadle), "denoiser1");
  EXPECT_EQ(name_of(h->DAncHnadle2), "denoiser4");
  EXPECT_EQ(name_of(h->DNAecHanle), "suppressor");
  EXPECT_EQ(printed, "Version:libquibo_wakeup_DOA_v3.3.22_20251103\n");
  EXPECT_EQ(name_of(h->handle1), "canceller1");
  EXPECT_EQ(name_of(h->handle2), "canceller2");
  EXPECT_EQ(name_of(h->handle3), "canceller3");
  EXPECT_EQ(stubs.limiter, &h->KTmpo);
  EXPECT_EQ(h->data_doa_len, 0);
  EXPECT_EQ(h->WDlen, 0);
}

TEST_F(FrontEnd, RefusesAHandleInUse) {
  const KTWakeup before = h;
  EXPECT_EQ(Quibo_wakeup_init(&h, kLang), -1);
  EXPECT_EQ(h, before);
  EXPECT_EQ(stubs.calls, Calls{});
}

TEST_F(FrontEnd, EachFailedCreationStopsThereWithItsCode) {
  const struct {
    const char* failing;
    int32_t code;
  } kCases[] = {{"record", -2},    {"canceller1", -3}, {"canceller2", -4}, {"canceller3", -5},
                {"estimator", -4}, {"engine", -5},     {"denoiser1", -6},  {"denoiser2", -7},
                {"denoiser3", -8}, {"denoiser4", -9},  {"suppressor", -10}};
  for (const auto& c : kCases) {
    stubs = Stubs{};
    stubs.failing = c.failing;
    const bool no_record = stubs.failing == "record";
    KTWakeup none = nullptr;
    testing::internal::CaptureStdout();
    const quibo_test::HeldMemory held;
    const quibo_test::FailAllocation fail(no_record ? 0 : -1);
    EXPECT_EQ(Quibo_wakeup_init(&none, kLang), c.code) << c.failing;
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    // The calls before the failure, and no release of what they made.
    Calls expected;
    for (const std::string& call : creation) {
      if (no_record) break;
      expected.push_back(call);
      if (call == "create " + stubs.failing) {
        if (stubs.failing.find("denoiser") == 0) expected.push_back(*(&call + 1));  // its floor
        break;
      }
    }
    EXPECT_EQ(stubs.calls, expected);
    EXPECT_EQ(held.blocks(), no_record ? 0 : 1);
  }
}

TEST_F(FrontEnd, EchoPathDescramblesThenCancelsEachMicrophoneAgainstTheOneReference) {
  std::mt19937 random(kSeed);
  Samples mics[3], before[3], ref = random_samples(random);
  for (int m = 0; m < 3; ++m) {
    mics[m] = before[m] = random_samples(random);
    label(mics[m].data(), "mic" + std::to_string(m + 1));
  }
  label(ref.data(), "ref");
  const Samples ref_before = ref;
  Samples naec(kFrame);
  label(naec.data(), "naec");
  EXPECT_EQ(Quibo_wakeup_three_write_data(h, mics[0].data(), mics[1].data(), mics[2].data(),
                                          ref.data(), nullptr, nullptr, nullptr, naec.data()),
            0);
  EXPECT_EQ(stubs.calls,
            (Calls{"dec_data mic1 1024", "dec_data mic2 1024", "dec_data mic3 1024",
                   "canceller1 mic1 ref -> aec_fdata1", "canceller2 mic2 ref -> aec_fdata2",
                   "canceller3 mic3 ref -> aec_fdata3",
                   "suppressor canceller1.mic canceller1.yn -> naec"}));
  for (int m = 0; m < 3; ++m) {
    for (int i = 0; i < kFrame; ++i) ASSERT_EQ(mics[m][i], stub_descrambled(before[m][i]));
  }
  EXPECT_EQ(ref, ref_before);
}

TEST_F(FrontEnd, EchoPathWritesTheOutputsAskedForAndWraps) {
  constexpr std::pair<float, int> kValues[] = {
      {1.0f, -32768},  {-1.0f, -32768}, {0.99999f, 32767},   {1.5f, -16384},
      {-1.25f, 24576}, {0.25f, 8192},   {-1.9f / 32768, -1}, {70000.0f, -1}};
  Samples expected[3];
  for (int m = 0; m < 3; ++m) {
    for (int i = 0; i < kFrame; ++i) {
      const auto& value = kValues[(i + m) % std::size(kValues)];
      stubs.echo_free[m][i] = value.first;
      expected[m].push_back(static_cast<int16_t>(value.second));
    }
    stubs.echo_free[m][kFrame - 1] = std::nanf("");
    expected[m][kFrame - 1] = 0;
  }
  const Samples untouched(kFrame, 123);
  for (int wanted = 0; wanted < 8; ++wanted) {
    Samples mic(kFrame), outs[3] = {untouched, untouched, untouched}, naec = untouched;
    int16_t* to[3];
    for (int m = 0; m < 3; ++m) to[m] = wanted >> m & 1 ? outs[m].data() : nullptr;
    EXPECT_EQ(Quibo_wakeup_three_write_data(h, mic.data(), mic.data(), mic.data(), mic.data(),
                                            to[0], to[1], to[2], naec.data()),
              0);
    for (int m = 0; m < 3; ++m) EXPECT_EQ(outs[m], to[m] ? expected[m] : untouched) << wanted;
    EXPECT_EQ(naec, Samples(kFrame, kSuppressed));
  }
}

TEST_F(FrontEnd, RestartsAreThoseOfTheMicrophonesCanceller) {
  for (int mic = 1; mic <= 3; ++mic) EXPECT_EQ(Quibo_aec_restarts(h, mic), 10 * mic);
  EXPECT_EQ(Quibo_aec_restarts(h, 0), -1);
  EXPECT_EQ(Quibo_aec_restarts(h, 4), -1);
  EXPECT_EQ(Quibo_aec_restarts(nullptr, 1), -1);
}

TEST_F(FrontEnd, DetectionFifosHoldTheRestOfEachBlockOf480) {
  std::mt19937 random(kSeed);
  std::deque<int> pending[4];  // the mix, then the microphones
  for (int frame = 0; frame < 16; ++frame) {
    const Samples mic1 = random_samples(random), mic2 = random_samples(random),
                  mic3 = random_samples(random);
    detect(mic1, mic2, mic3);
    for (int i = 0; i < kFrame; ++i) {
      pending[0].push_back(mix_of(mic1[i] + mic2[i] + mic3[i]));
      pending[1].push_back(~mic1[i]);  // through the noise suppressors; the mix is not
      pending[2].push_back(~mic2[i]);
      pending[3].push_back(~mic3[i]);
    }
    ASSERT_EQ(h->data_doa_len, 64 * (frame + 1) % kBlock) << "frame " << frame;
    const int16_t* fifos[] = {h->WData, h->mic1_doa_data, h->mic2_doa_data, h->mic3_doa_data};
    for (int i = 0; i < 4; ++i) {
      while (pending[i].size() >= kBlock) {
        pending[i].erase(pending[i].begin(), pending[i].begin() + kBlock);
      }
      const std::deque<int> held(fifos[i], fifos[i] + h->data_doa_len);
      ASSERT_EQ(held, pending[i]) << "frame " << frame << ", FIFO " << i << ", seed " << kSeed;
    }
  }
}

TEST_F(FrontEnd, EngineHearsEveryBlockOfTheMixAndEstimatorThoseOfEachMicrophone) {
  std::mt19937 random(kSeed);
  Samples mixed, heard[3];
  for (int frame = 0; frame < 15; ++frame) {  // 32 whole blocks
    const Samples mics[3] = {random_samples(random), random_samples(random),
                             random_samples(random)};
    detect(mics[0], mics[1], mics[2]);
    for (int i = 0; i < kFrame; ++i) {
      mixed.push_back(mix_of(mics[0][i] + mics[1][i] + mics[2][i]));
      for (int m = 0; m < 3; ++m) heard[m].push_back(~mics[m][i]);  // denoised
    }
  }
  Calls expected;
  for (int i = 0; i < 32; ++i) {
    expected.push_back("engine");
    expected.push_back("estimator NULL 0");
  }
  EXPECT_EQ(block_calls(), expected);
  Samples engine_given;
  for (const Samples& block : stubs.mixes) {
    engine_given.insert(engine_given.end(), block.begin(), block.end());
  }
  EXPECT_EQ(engine_given, mixed) << "seed " << kSeed;
  for (int m = 0; m < 3; ++m) {
    Samples given;
    for (const Samples& block : stubs.blocks[m]) {
      given.insert(given.end(), block.begin(), block.end());
    }
    EXPECT_EQ(given, heard[m]) << "microphone " << m + 1 << ", seed " << kSeed;
  }
}

TEST_F(FrontEnd, AnAngleGainsThirtyDegreesAndEmptiesTheFifos) {
  const Samples x(kFrame, 1000);
  for (const auto& [angle, reported] :
       {std::pair{0, 30}, {340, 10}, {329, 359}, {330, 0}, {360, 30}}) {
    stubs.angles = {-1, angle};  // in the second block of the frame
    int32_t wake = 77;
    EXPECT_EQ(Quibo_doa_three_write_data(h, &wake, x.data(), x.data(), x.data(), nullptr, kFrame),
              reported);
    EXPECT_EQ(wake, -1);
    EXPECT_EQ(h->data_doa_len, 0);
    for (const auto& fifo : {h->WData, h->mic1_doa_data, h->mic2_doa_data, h->mic3_doa_data}) {
      for (int i = 0; i < QUIBO_FIFO; ++i) ASSERT_EQ(fifo[i], 0) << i;
    }
  }
}

TEST_F(FrontEnd, AWakeIsReportedAndMarkedForTheRestOfItsCallOnly) {
  const Samples x(kFrame, 1000);
  int32_t wake = 77;
  stubs.wakes = {-1, 0};  // in the second of three blocks
  h->data_doa_len = 479;
  EXPECT_EQ(Quibo_doa_three_write_data(h, &wake, x.data(), x.data(), x.data(), nullptr, kFrame),
            -1);
  EXPECT_EQ(wake, 0);
  EXPECT_EQ(h->data_doa_len, 63);  // without an angle the FIFOs stay as they are
  EXPECT_EQ(block_calls(), (Calls{"engine", "estimator NULL 0", "engine", "estimator NULL 1",
                                  "engine", "estimator NULL 1"}));
  stubs.calls.clear();
  detect(x, x, x);
  EXPECT_EQ(block_calls(), (Calls{"engine", "estimator NULL 0", "engine", "estimator NULL 0"}));
}

TEST_F(FrontEnd, APositiveEngineResultEndsTheCallWithEmptyFifos) {
  const Samples x(kFrame, 1000);
  int32_t wake = 77;
  stubs.wakes = {-1, 5};
  EXPECT_EQ(Quibo_doa_three_write_data(h, &wake, x.data(), x.data(), x.data(), nullptr, kFrame),
            -1);
  EXPECT_EQ(wake, 5);
  EXPECT_EQ(h->data_doa_len, 0);
  EXPECT_EQ(block_calls(), (Calls{"engine", "estimator NULL 0", "engine"}));
  for (const auto& fifo : {h->WData, h->mic1_doa_data, h->mic2_doa_data, h->mic3_doa_data}) {
    for (int i = 0; i < QUIBO_FIFO; ++i) ASSERT_EQ(fifo[i], 0) << i;
  }
}

TEST_F(FrontEnd, MixesThreeMicrophonesTowardZero) {
  constexpr int kMixes[][4] = {{1, 1, 1, 0},
                               {2, 1, 1, 1},
                               {-1, -1, -1, 0},
                               {-2, -1, -1, -1},
                               {100, -300, 500, 99},
                               {5, -5, 0, 0},
                               {INT16_MAX, INT16_MAX, INT16_MAX, 32766},
                               {INT16_MIN, INT16_MIN, INT16_MIN, -32767}};
  for (const auto& mix : kMixes) {
    Samples mics[3];
    for (int m = 0; m < 3; ++m) mics[m].assign(kFrame, static_cast<int16_t>(mix[m]));
    h->data_doa_len = 0;
    detect(mics[0], mics[1], mics[2]);
    EXPECT_EQ(h->WData[0], mix[3]) << mix[0] << " " << mix[1] << " " << mix[2];
  }
}

TEST_F(FrontEnd, LenMovesTheFillAloneWhileWholeFramesAreStored) {
  const Samples first(kFrame, 30), second(kFrame, 60);
  detect(first, first, first, 100);
  EXPECT_EQ(h->data_doa_len, 100);
  for (int i = 0; i < kFrame; ++i) ASSERT_EQ(h->mic3_doa_data[i], ~30);
  detect(second, second, second, 0);
  EXPECT_EQ(h->data_doa_len, 100);
  detect(second, second, second, 379);  // one sample short of a block
  EXPECT_EQ(h->data_doa_len, 479);
  for (int i = 0; i < 479; ++i) ASSERT_EQ(h->mic1_doa_data[i], i < 100 ? ~30 : ~60);
  detect(first, first, first);  // the fullest the FIFOs get: 1503, three blocks
  EXPECT_EQ(h->data_doa_len, 63);
  detect(first, first, first, 417);  // exactly a block
  EXPECT_EQ(h->data_doa_len, 0);
  // Nonsense stays within the FIFOs.
  detect(first, first, first, -5);
  EXPECT_EQ(h->data_doa_len, 0);
  detect(first, first, first, INT32_MAX);
  EXPECT_EQ(h->data_doa_len, QUIBO_FIFO % kBlock);
}

TEST_F(FrontEnd, NullHandlesAreRefusedWithTheirLines) {
  Samples x(kFrame, 5);
  int32_t wake = 77;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Quibo_wakeup_three_write_data(nullptr, x.data(), x.data(), x.data(), x.data(), x.data(),
                                          x.data(), x.data(), x.data()),
            -1);
  EXPECT_EQ(
      Quibo_doa_three_write_data(nullptr, &wake, x.data(), x.data(), x.data(), x.data(), kFrame),
      -10);
  EXPECT_EQ(Quibo_wakeup_unit(nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "kesto_wakeup_three_write_data error\nkesto_doa_three_write_data error\n");
  EXPECT_EQ(wake, 77);
  EXPECT_EQ(x, Samples(kFrame, 5));
  EXPECT_EQ(stubs.calls, Calls{});
}

TEST_F(FrontEnd, ReleasesEveryModuleAndItsRecord) {
  const quibo_test::HeldMemory held;
  KTWakeup own = nullptr;
  stubs = Stubs{};
  Quibo_wakeup_init(&own, kLang);
  EXPECT_EQ(held.blocks(), 1);
  stubs.calls.clear();
  EXPECT_EQ(Quibo_wakeup_unit(own), 0);
  EXPECT_EQ(stubs.calls, (Calls{"release estimator", "release denoiser1", "release denoiser2",
                                "release denoiser3", "release denoiser4", "release suppressor",
                                "release canceller1", "release canceller2", "release canceller3",
                                "release engine", "free suppressor"}));
  EXPECT_EQ(held.blocks(), 0);
}

}  // namespace
