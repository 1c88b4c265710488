"""Mutation testing of the core: changes one line at a time in a copy of the source tree and runs the tests that should
notice. Prints what nobody noticed; exits with 1 if anything did not.

    python3 tests/mutate.py [FIRST [LAST]]      in build-mutate/
"""

import pathlib
import shutil
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parent.parent
COPY, BUILD = SOURCE / "build-mutate/source", SOURCE / "build-mutate/build"

# File, what stands there (once), what it becomes, the tests that should notice.
MUTATIONS = [
    # Which kernels are in use.
    ("kernels/kernels.cpp", "in_use = available_kernels(i);", "in_use = available_kernels(0);", "kernels_test"),
    ("kernels/kernels.cpp", "if (wanted && *wanted && use_kernels(wanted)) return;", "", "kernels_test"),
    ("kernels/kernels.cpp", '__builtin_cpu_supports("avx512f") &&', "false &&", "kernels_test"),
    # Decoder.
    (
        "wakeup/decoder.cpp",
        "j <= word->seqLen - 2; ++j) word->dp[j] *= factor",
        "j < word->seqLen - 2; ++j) word->dp[j] *= factor",
        "wakeup_decoder_test",
    ),
    ("wakeup/decoder.cpp", "int j = 1; j <= word->seqLen - 2", "int j = 2; j <= word->seqLen - 2", "wakeup_decoder_test"),
    ("wakeup/decoder.cpp", "j >= 2 && label != KWS_BLANK &&", "j >= 2 &&", "wakeup_decoder_test"),
    ("wakeup/decoder.cpp", "&& word->pseq[j - 2] != label", "", "wakeup_decoder_test"),
    ("wakeup/decoder.cpp", "score > 1.0f ? 1.0f : score", "score", "wakeup_decoder_test"),
    ("wakeup/decoder.cpp", "blank > kBlankStep", "blank >= 0.9f", "wakeup_decoder_test"),
    ("wakeup/decoder.cpp", "++decoder->blank_cnt > kResetSteps", "++decoder->blank_cnt >= kResetSteps", "wakeup_decoder_test"),
    ("wakeup/decoder.cpp", "blank_cnt > kFastDecaySteps", "blank_cnt >= kFastDecaySteps", "wakeup_decoder_test"),
    ("wakeup/decoder.cpp", "if (i == 0) {", "if (true) {", "wakeup_decoder_test"),
    (
        "wakeup/decoder.cpp",
        "decoder->no_wake_time <= kStrictSteps",
        "decoder->no_wake_time < kStrictSteps",
        "wakeup_decoder_test",
    ),
    ("wakeup/decoder.cpp", "syllables > KWS_MAX_SYLLABLES", "syllables > KWS_MAX_SYLLABLES + 1", "wakeup_decoder_test"),
    ("wakeup/decoder.cpp", "if (scores[kFiller] > 0.0f) scores", "scores", "wakeup_network_test"),
    ("wakeup/decoder.cpp", "word->dp[0] = 1.0f;", "", "wakeup_decoder_test"),
    # Engine and its layers.
    ("wakeup/ChineseConv.cpp", "if (result == 0) clear_history(p->mynet.dlayer);", "", "wakeup_api_test"),
    ("wakeup/ChineseConv.cpp", "  start_recog(p->mynet.pdec);", "", "wakeup_api_test"),
    ("wakeup/quantised.cpp", "zero_point < -kSpan ? -kSpan :", "", "wakeup_network_test"),
    ("wakeup/quantised.cpp", "zero_point > kSpan ? kSpan :", "", "wakeup_network_test"),
    (
        "wakeup/quantised.cpp",
        "{multiplier(M0, M1), static_cast<float>(zero_point), 0.0f, 255.0f, 0}",
        "{multiplier(M0, M1), 0.0f, 0.0f, 255.0f, zero_point}",
        "wakeup_network_test",
    ),
    ("wakeup/quantised.h", "x > 10.0f) return 1.0f", "x >= 10.0f) return 1.0f", "wakeup_network_test"),
    ("wakeup/quantised.h", "if (x < -8.0f) return -1.0f;", "", "wakeup_network_test"),
    ("wakeup/quantised.h", "static_cast<int32_t>(x + kBelowHalf)", "static_cast<int32_t>(x + 0.5f)", "wakeup_network_test"),
    ("wakeup/layers.cpp", "&& !all_equal(in)", "", "wakeup_network_test"),
    (
        "wakeup/layers.cpp",
        "memmove(memory, memory + 1, KWS_CHANNELS * KWS_MEMORY - 1);",
        "memmove(memory, memory + 1, KWS_CHANNELS * KWS_MEMORY - 8);",
        "wakeup_network_test",
    ),
    ("wakeup/features.cpp", "f * kMelHop", "f * (kMelHop - 1)", "wakeup_network_test"),
    (
        "wakeup/features.cpp",
        "memcpy(data->qleft.conv1_left, frames + KWS_FRAMES",
        "memcpy(data->qleft.conv1_left, frames + 2",
        "wakeup_network_test",
    ),
    ("wakeup/ChineseParams.cpp", "(*slot)->in_zero_point == 0;", "true;", "wakeup_api_test"),
    ("wakeup/ChineseParams.cpp", "decoder->wake_cand = -1;", "", "wakeup_decoder_test"),
    # Canceller.
    ("aec/Laec.cpp", "clear(st->w + kShift, kShift);\n  my_fft", "my_fft", "laec_test"),
    ("aec/Laec.cpp", "constrain(st, st->hk);", "", "laec_test"),
    ("aec/Laec.cpp", "st->gamma = 0.9394131f", "st->gamma = 0.93f", "laec_test"),
    ("aec/Laec.cpp", "out[n] = st->outBuff[n] + st->w[kShift + n]", "out[n] = st->w[kShift + n]", "laec_test"),
    ("aec/Laec.cpp", "k < kEdgeBins ||", "", "laec_test"),
    ("aec/Laec.cpp", "0.5f * (st->post_ovlp[kShift + n] + st->w[n])", "st->w[n]", "laec_test"),
    ("aec/Laec.cpp", "copy(st->micdata, st->micdata + kShift, LAEC_DELAY);", "", "laec_test"),
    # Suppressors.
    ("denoise/denoise_net.cpp", "next_patch[Encoder1::kOutputs - 1] = 0.0f;", "", "denoise_test"),
    ("denoise/denoise_net.cpp", "return *count > 1;", "return *count > 0;", "denoise_test"),
    ("denoise/denoise_net.cpp", "min_scale > gain[k] ? min_scale : gain[k]", "gain[k]", "denoise_test"),
    ("denoise/denoise_net.cpp", "constexpr int kLowBins = 8;", "constexpr int kLowBins = 5;", "denoise_test"),
    ("denoise/denoise_net.cpp", "gain[kHop] = 0.0f;", "gain[kHop] = 1.0f;", "denoise_test"),
    ("denoise/denoise.cpp", "!(min_scale > 1.0f)", "true", "denoise_test"),
    ("denoise/denoise.cpp", "(*slot)->norm_bias = tables.norm_bias;", "", "denoise_test"),
    ("aec/aec_denoise.cpp", "memset(sh_time_gru2_hidden, 0, sizeof sh_time_gru2_hidden);", "", "aec_denoise_test"),
    ("aec/aec_denoise_net.cpp", "k < kLowBins; ++k", "k < kLowBins - 1; ++k", "aec_denoise_test"),
    (
        "aec/aec_denoise_net.cpp",
        "d->mask_imag[k] = im_by_R[k] + re_by_I[k];",
        "d->mask_imag[k] = im_by_R[k] - re_by_I[k];",
        "aec_denoise_test",
    ),
    (
        "nn/net_layers.h",
        "layer->bias_in2 = tables.bias + 3 * hidden;",
        "layer->bias_in2 = tables.bias + 2 * hidden;",
        "denoise_test aec_denoise_test",
    ),
    ("nn/conv_layer.h", "row[0] = row[kRow - 1] = 0.0f;", "row[0] = 0.0f;", "denoise_test aec_denoise_test"),
    # Direction.
    ("doa/doa_decision.cpp", "length > best", "length >= best", "doa_test"),
    ("doa/doa_decision.cpp", "kDecisionBlocks = 15", "kDecisionBlocks = 16", "doa_test"),
    ("doa/doa_decision.cpp", "memcpy(row, kEmptyRow, sizeof row);", ";", "doa_test"),
    (
        "doa/doa_network.cpp",
        "k + 1 < kTaps; ++k) past[k] = past[k + 1]",
        "k + 2 < kTaps; ++k) past[k] = past[k + 1]",
        "doa_network_test",
    ),
    (
        "doa/doa_features.cpp",
        "doa_get_two_mics_gcc_feat(dlayer, 1, 2,",
        "doa_get_two_mics_gcc_feat(dlayer, 2, 1,",
        "doa_features_test",
    ),
    # Front end, codec, limiter, elementary functions, features.
    ("api/WakeupApi.cpp", "return QUIBO_FIFO;", "return pending + len;", "front_end_test"),
    ("api/WakeupApi.cpp", "int32_t woken = 0;  // from", "int32_t woken = 1;  // from", "front_end_test"),
    ("api/enc_dec_wav_data.cpp", "x < -kBound ||", "", "codec_test"),
    (
        "limiter/zq_MPO.cpp",
        "memmove(xd + 9, xd + 8, 8 * sizeof *xd);",
        "memmove(xd + 9, xd + 8, 7 * sizeof *xd);",
        "limiter_test",
    ),
    ("dsp/log_mel.cpp", "energy != 0.0f ?", "energy > 1e-3f ?", "log_mel_test"),
    ("dsp/elementary.cpp", "for (int k = 17; k > 0; k -= 2)", "for (int k = 9; k > 0; k -= 2)", "elementary_test"),
    # Registers.
    ("dsp/simd_avx2.h", "_mm256_cmp_ps(a, b, _CMP_GT_OQ)", "_mm256_cmp_ps(a, b, _CMP_NLE_UQ)", "register_test"),
    ("dsp/simd_avx2.h", "store(p + 8, _mm256_permute2f128_ps(y2, y3, 0x20));", "store(p + 8, y2);", "register_test"),
    ("dsp/simd_sse2.h", "return _mm_max_ps(a, b);", "return _mm_max_ps(b, a);", "register_test"),
    ("dsp/int8_avx2.h", "_mm256_set1_ps(kBelowHalf)", "_mm256_set1_ps(0.5f)", "register_test"),
    (
        "dsp/int8_avx2.h",
        "_mm256_hadd_epi32(a, b), _MM_SHUFFLE(3, 1, 2, 0)",
        "_mm256_hadd_epi32(a, b), _MM_SHUFFLE(3, 2, 1, 0)",
        "register_test",
    ),
    # FFT, convolutions, recurrent and int8 kernels: one body for all instruction sets.
    ("dsp/fft_kernels.h", "bins[n + 1] = 0.0f;", "", "fft_test"),
    ("dsp/fft_kernels.h", "z.re[0] = bins[0] - half_difference;", "z.re[0] = 0.5f * (bins[0] + bins[n]);", "fft_test"),
    ("dsp/fft_kernels.h", "constexpr int last = count + 1 - V::kWidth;", "constexpr int last = count - V::kWidth;", "fft_test"),
    (
        "nn/conv_kernels.h",
        "V::add(V::add(lane[0][c][p], lane[2][c][p]), V::add(lane[1][c][p], lane[3][c][p]))",
        "V::add(V::add(lane[0][c][p], lane[1][c][p]), V::add(lane[2][c][p], lane[3][c][p]))",
        "denoise_test aec_denoise_test",
    ),
    (
        "nn/conv_kernels.h",
        "residual_at.at[p] = step * job.residual_step + position;",
        "residual_at.at[p] = position;",
        "denoise_test",
    ),
    (
        "nn/gru_kernels.h",
        "V::mul_add(V::mul(V::sub(V::splat(1.0f), z), n), z, h)",
        "V::mul_add(n, z, V::sub(h, n))",
        "denoise_test aec_denoise_test",
    ),
    (
        "nn/gru_kernels.h",
        "memcpy(job.state, h[kSteps - 1], sizeof h[0]);",
        "memcpy(job.state, h[0], sizeof h[0]);",
        "float_kernels_test",
    ),
    ("nn/gru_kernels.h", "tanh<V, ExactExp>(x, 8.0f)", "tanh<V, ExactExp>(x)", "aec_denoise_test"),
    ("nn/float_kernels.h", "V::splat(0.00138145406f)", "V::splat(0.00139f)", "float_kernels_test"),
    (
        "nn/int8_kernels.h",
        "F::smaller(F::larger(x, F::splat(low)), F::splat(high))",
        "F::larger(F::smaller(x, F::splat(high)), F::splat(low))",
        "wakeup_network_test",
    ),
    ("nn/int8_kernels.h", "kLimit = 1 << 30;", "kLimit = 1 << 24;", "wakeup_network_test"),
]


def run(*command):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, cwd=SOURCE)


def build(tests):
    return run("cmake", "--build", BUILD, "-j", "2", "--target", *tests).returncode == 0


def verdict(tests):
    if not build(tests):
        return "does not compile"
    passed = all(run(*BUILD.glob(f"tests/**/{test}"), "--gtest_brief=1").returncode == 0 for test in tests)
    return "survived" if passed else "caught"


def main(first=1, last=None):
    files = run("git", "ls-files").stdout.split("\n")[:-1]
    for name in files:
        (COPY / name).parent.mkdir(parents=True, exist_ok=True)
        if not (COPY / name).exists() or (COPY / name).read_bytes() != (SOURCE / name).read_bytes():
            shutil.copy(SOURCE / name, COPY / name)
    run("cmake", "-S", COPY, "-B", BUILD, "-DQUIBO_BUILD_TESTS=ON", "-DCMAKE_CXX_FLAGS_RELEASE=-O1")
    chosen = list(enumerate(MUTATIONS, 1))[first - 1 : last]
    if not build(sorted({test for _, mutation in chosen for test in mutation[3].split()})):
        sys.exit("the tests do not build")
    survived = 0
    for number, (name, old, new, tests) in chosen:
        path = COPY / name
        text = path.read_text()
        if text.count(old) != 1:
            sys.exit(f"{number}: {name} does not have this once: {old}")
        path.write_text(text.replace(old, new))
        result = verdict(tests.split())
        path.write_text(text)
        survived += result != "caught"
        print(f"{number:2} {result:16} {name}: {' '.join(old.split())} -> {' '.join(new.split()) or '(nothing)'}", flush=True)
    print(f"{len(chosen)} mutations, {survived} not caught")
    return survived > 0


if __name__ == "__main__":
    sys.exit(main(*map(int, sys.argv[1:])))
