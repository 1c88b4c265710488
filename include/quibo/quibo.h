/* Quibo: speech front end for voice devices with three microphones and one loudspeaker.
 *
 * USE
 *   KTWakeup front_end = NULL;
 *   if (Quibo_wakeup_init(&front_end, 0) != 0) return;
 *   for (;;) {                                        // every 64 ms
 *     int16_t mic1[QUIBO_FRAME], mic2[QUIBO_FRAME], mic3[QUIBO_FRAME], ref[QUIBO_FRAME];
 *     int16_t out1[QUIBO_FRAME], out2[QUIBO_FRAME], out3[QUIBO_FRAME], clean[QUIBO_FRAME];
 *     int32_t wake;
 *     capture(mic1, mic2, mic3, ref);
 *     Quibo_wakeup_three_write_data(front_end, mic1, mic2, mic3, ref, out1, out2, out3, clean);
 *     int32_t angle =
 *         Quibo_doa_three_write_data(front_end, &wake, out1, out2, out3, clean, QUIBO_FRAME);
 *     if (wake >= 0) heard();
 *     if (angle >= 0) point_to(angle);                // degrees, 0..359
 *   }
 *   Quibo_wakeup_unit(front_end);
 *
 * AUDIO
 *   16 kHz, one channel per buffer, signed 16 bit at the interface; a frame is 1024 samples
 *   (64 ms). Floats are int16 x 2^-15 (full scale 1.0). Float to int16 truncates toward zero at
 *   32 bits (saturating there) and keeps the low 16 bits: 1.0 becomes -32768. This wrap is
 *   deliberate.
 *
 * CONVENTIONS
 *   Functions return a signed 32-bit status: 0 (or a non-negative result) on success, negative on
 *   failure and where there is nothing to report yet (no wake, no direction, no sound);
 *   init_doa_net() alone fails with 1. Buffers belong to the caller and are not kept. Handles are
 *   created by an init call and released by the matching unit call. Memory comes from malloc/calloc
 *   at init only; the per-frame calls allocate nothing. No call takes more than 40 KiB of stack.
 *   Diagnostics are the lines quoted below, on standard output.
 *
 * PROCESSORS
 *   The fastest kernels the processor has are chosen at the first call; all give the same bits. For
 *   tests the environment variable QUIBO_KERNELS names others (scalar, sse2, avx2, ...); an unknown
 *   name is reported on standard error and ignored. Floating point is to be in its default mode,
 *   rounding to nearest and keeping denormals: linking an application with -ffast-math may change
 *   that for the whole process.
 *
 * THREADS
 *   None are started and nothing is locked. Modules share module-level work areas: one front end
 *   per process, driven from one thread at a time.
 *
 * The records behind the pointers are defined in the modules' own headers (quibo/api/WakeupApi.h,
 * quibo/aec/Laec.h, quibo/aec/aecpostapi.h, quibo/aec/aec_denoise.h, quibo/denoise/denoise.h,
 * quibo/doa/ring_doa.h, quibo/doa/customs_doa_api.h, quibo/wakeup/ChineseConv.h,
 * quibo/wakeup/QuibWakeupApi.h, quibo/limiter/zq_MPO.h). C99 and C++17. */
#ifndef QUIBO_QUIBO_H_
#define QUIBO_QUIBO_H_

#include <stdint.h>

#if defined(__GNUC__)
#define QUIBO_API __attribute__((visibility("default")))
#else
#define QUIBO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum {
  QUIBO_SAMPLE_RATE = 16000,
  QUIBO_FRAME = 1024, /* samples per channel and call */
  QUIBO_BLOCK = 480   /* step of the wake-up engine and the direction estimator, 30 ms */
};

/* ---- Front end ---- */

typedef struct KTWakeupParams* KTWakeup;

/* Creates a front end and stores it in *handle, which must be NULL on entry. `lang` is handed to
 * the wake-up engine, which has one language and ignores it; pass 0. Prints the echo suppressor's
 * lines and "Version:libquibo_wakeup_DOA_v3.3.22_20251103\n". Returns 0, or, leaving *handle
 * unchanged and what was already created allocated:
 *
 * - -1: *handle is not NULL
 * - -2: no memory for the record
 * - -3: echo canceller of microphone 1
 * - -4: echo canceller of microphone 2, or direction estimator
 * - -5: echo canceller of microphone 3, or wake-up engine
 * - -6: noise suppressor of the wake-up path, which is created and not run
 * - -7, -8, -9: noise suppressor of microphone 1, 2, 3
 * - -10: neural echo suppressor */
QUIBO_API int32_t Quibo_wakeup_init(KTWakeup* handle, int32_t lang);

/* Echo path, one frame. mic1_data..mic3_data: 1024 samples each in the scrambled encoding of
 * dec_data(), descrambled in place. ref_data: 1024 samples as played by the loudspeaker, plain.
 * outdata1..outdata3: receive the echo-cancelled microphones, 1024 samples each; each may be NULL
 * to skip it. naecout: receives 1024 samples of microphone 1 with the residual echo suppressed, not
 * NULL. Latency: 20 samples (1.25 ms); naecout 2580 samples (161 ms). Returns 0, or -1 after
 * printing "kesto_wakeup_three_write_data error\n" when handle is NULL. */
QUIBO_API int32_t Quibo_wakeup_three_write_data(KTWakeup handle, int16_t* mic1_data,
                                                int16_t* mic2_data, int16_t* mic3_data,
                                                const int16_t* ref_data, int16_t* outdata1,
                                                int16_t* outdata2, int16_t* outdata3,
                                                int16_t* naecout);

/* Detection path, one frame, after the echo path. mic1_data..mic3_data: 1024 samples each, plain:
 * outdata1..outdata3 of the echo path. naec_data: accepted and ignored. len: the number of new
 * samples to account for; pass 1024 (the call always reads 1024 samples of each microphone; the fill
 * is kept within the FIFOs).
 * *Iswakeup receives -1 when no wake was heard in this call, 0 when the wake phrase was heard.
 * Returns the talker's direction in degrees, 0..359, when a wake gave one; else -1; or -10 after
 * printing "kesto_doa_three_write_data error\n", with *Iswakeup untouched, when handle is NULL. */
QUIBO_API int32_t Quibo_doa_three_write_data(KTWakeup handle, int32_t* Iswakeup,
                                             const int16_t* mic1_data, const int16_t* mic2_data,
                                             const int16_t* mic3_data, const int16_t* naec_data,
                                             int32_t len);

/* How often the echo canceller of a microphone (1, 2 or 3) started anew since the front end was
 * created, because it had diverged: see kesto_laec_restarts(). 0 in ordinary use; a number that
 * grows says that the reference holds tones, or that a microphone falls silent or changes while the
 * loudspeaker plays. Returns -1 when handle is NULL or there is no such microphone. */
QUIBO_API int32_t Quibo_aec_restarts(KTWakeup handle, int32_t mic);

/* Releases a front end and all it created. Returns 0, or -1 when handle is NULL. */
QUIBO_API int32_t Quibo_wakeup_unit(KTWakeup handle);

/* ---- Sample codec ----
 *
 * Microphone samples reach the library scrambled: a sample of magnitude m in 1..4800 is replaced by
 * table[m] with its sign; 0 and larger magnitudes pass as they are. Entry 0 of the tables is never
 * read. */

QUIBO_API extern const int16_t enc_table[4801];
QUIBO_API extern const int16_t dec_table[4801];

/* Scramble / descramble `len` samples in place; nothing happens for len <= 0. */
QUIBO_API void enc_data(int16_t* indata, int32_t len);
QUIBO_API void dec_data(int16_t* indata, int32_t len);

/* ---- Linear echo canceller ----
 *
 * Adaptive filter of 3 x 1024 taps (192 ms) with a residual-echo gain; 1024-sample frames. */

typedef struct LAEC LAEC; /* quibo/aec/Laec.h; the caller allocates it */

/* Sets every field to its start value. Returns 0. Calling it again resets the canceller. */
QUIBO_API int32_t init_laec(LAEC* st);

/* One frame: mic, ref and out hold 1024 floats each, full scale 1.0; out must not overlap the
 * record. The output is the microphone delayed by 20 samples less the echo. Always returns 1.
 * Pointers are not checked. */
QUIBO_API int32_t linear_aec_proc(LAEC* st, const float* mic, const float* ref, float* out);

/* Optional second stage: suppresses what is coherent with the reference, in place, 1024 floats.
 * Call it after linear_aec_proc of the same frame. Delays its signal by one frame. */
QUIBO_API void linear_aec_post(LAEC* st, float* data);

/* The canceller behind a handle, with int16 in and float out, and guarded: a steady tone in the
 * reference can make the adaptive filter diverge. The canceller starts anew when its output is 6 dB
 * above the microphone for five frames (0.32 s) of a reference without peaks, as tones are; when the
 * output is 3 dB or the echo estimate 6 dB above it for 64 frames (4 s), whatever the reference; and
 * at once when either is beyond what samples can hold. The frame is then the delayed microphone with
 * an echo estimate of zero, and the regulariser `delta` follows the reference's power, which holds
 * the filter, until a reference with peaks, as speech and music are, plays again. Until that happens the samples are those of linear_aec_proc(), to the
 * bit. */

/* Returns a new canceller, or NULL after printing "malloc AEC_POST error\n". */
QUIBO_API void* kesto_Laec_Post_init(void);

/* One frame: mic and ref hold 1024 int16, out receives 1024 floats of full scale 1.0 (out is not
 * checked). Returns 1024, or -1 after printing "NULL\n", with nothing changed, when handle, mic or
 * ref is NULL. */
QUIBO_API int32_t kesto_Laec_Post_write(void* handle, const int16_t* mic, const int16_t* ref,
                                        float* out);

/* The canceller's microphone signal of the last frame, delayed by 20 samples, and its echo
 * estimate: 1024 floats each, valid until the handle is released, overwritten by every write.
 * handle must not be NULL. */
QUIBO_API float* kesto_laec_micdata(void* handle);
QUIBO_API float* kesto_laec_yn(void* handle);

/* How often the guard started the canceller anew since its creation, or -1 when handle is NULL. */
QUIBO_API int32_t kesto_laec_restarts(void* handle);

/* Releases a canceller. Returns 0, or -1 when handle is NULL. */
QUIBO_API int32_t kesto_Laec_Post_unit(void* handle);

/* ---- Noise suppressor ----
 *
 * A convolutional-recurrent mask network on the short-time spectrum (1024-point Hann frames, hop
 * 512); separate masks for the real and the imaginary part, applied to the spectrum of four hops
 * earlier. Delay: 2048 samples (128 ms) plus the framing of one hop. All instances share one set of
 * recurrent states, deliberately: the front end runs three of them in turns on one scene. They are
 * zero when the program starts and survive every release and creation: the same scene played twice
 * in one process gives other bits the second time. */

/* Creates an instance with a mask floor of min_scale (0..1; a value outside is ignored and the
 * floor stays 0; a NaN means no floor) and stores it in *handle. Returns 0; -1 when there is no
 * memory for the network record (the handle's record then stays allocated); -2 when there is none
 * for the handle; *handle is NULL in both cases. When memory runs out later the call still returns
 * 0: such a half-built instance runs (QuibAncRun returns -1 and writes silence) and can be
 * released. */
QUIBO_API int32_t QuibAncInit(void** handle, float min_scale);

/* One frame: in and out hold 1024 int16 each; out may be in. Returns 0; -1 during the first two
 * frames of an instance, which come out as silence; -10, with nothing written, when handle is
 * NULL. Samples stay within 0.99 of full scale. */
QUIBO_API int32_t QuibAncRun(void* handle, const int16_t* in, int16_t* out);

/* Releases *handle, which is not cleared. Returns 0, or -10 when handle or *handle is NULL. */
QUIBO_API int32_t QuibAncUnit(void** handle);

/* Its parameters. Convolutions: output channels x input channels x 3 times (oldest first) x 3
 * frequencies, one bias and (encoder) one PReLU slope per output channel. Recurrent blocks, along
 * time and along frequency: three gates r, z, n of 32 x 64 (r and z: columns of x, then of h; n: 32
 * x 32 of x, then 32 x 32 of h), biases r, z, n of x, n of h; a linear layer of 32 x 32; a scale
 * ("norm weight") and a shift per channel. */

/* 16 x 2 x 3 x 3, and two floats more: the products of this layer run over 20 columns where a row
 * has 18, into the next row's first two; these are what follows the last row. */
QUIBO_API extern const float denoise_inp_conv1_weight[290];
QUIBO_API extern const float denoise_inp_conv1_bias[16];
QUIBO_API extern const float denoise_inp_prelu1_weight[16];
QUIBO_API extern const float denoise_inp_conv2_weight[4608];
QUIBO_API extern const float denoise_inp_conv2_bias[32];
QUIBO_API extern const float denoise_inp_prelu2_weight[32];
QUIBO_API extern const float denoise_inp_conv3_weight[9216];
QUIBO_API extern const float denoise_inp_conv3_bias[32];
QUIBO_API extern const float denoise_inp_prelu3_weight[32];
QUIBO_API extern const float denoise_inp_conv4_weight[9216];
QUIBO_API extern const float denoise_inp_conv4_bias[32];
QUIBO_API extern const float denoise_inp_prelu4_weight[32];
QUIBO_API extern const float denoise_time_gru1_weight[6144];
QUIBO_API extern const float denoise_time_gru1_bias[128];
QUIBO_API extern const float denoise_time_linear1_weight[1024];
QUIBO_API extern const float denoise_time_linear1_bias[32];
QUIBO_API extern const float denoise_time_norm1_weight[32];
QUIBO_API extern const float denoise_time_norm1_bias[32];
QUIBO_API extern const float denoise_time_gru2_weight[6144];
QUIBO_API extern const float denoise_time_gru2_bias[128];
QUIBO_API extern const float denoise_time_linear2_weight[1024];
QUIBO_API extern const float denoise_time_linear2_bias[32];
QUIBO_API extern const float denoise_time_norm2_weight[32];
QUIBO_API extern const float denoise_time_norm2_bias[32];
QUIBO_API extern const float denoise_time_gru3_weight[6144];
QUIBO_API extern const float denoise_time_gru3_bias[128];
QUIBO_API extern const float denoise_time_linear3_weight[1024];
QUIBO_API extern const float denoise_time_linear3_bias[32];
QUIBO_API extern const float denoise_time_norm3_weight[32];
QUIBO_API extern const float denoise_time_norm3_bias[32];
QUIBO_API extern const float denoise_freq_gru1_weight[6144];
QUIBO_API extern const float denoise_freq_gru1_bias[128];
QUIBO_API extern const float denoise_freq_linear1_weight[1024];
QUIBO_API extern const float denoise_freq_linear1_bias[32];
QUIBO_API extern const float denoise_freq_norm1_weight[32];
QUIBO_API extern const float denoise_freq_norm1_bias[32];
QUIBO_API extern const float denoise_freq_gru2_weight[6144];
QUIBO_API extern const float denoise_freq_gru2_bias[128];
QUIBO_API extern const float denoise_freq_linear2_weight[1024];
QUIBO_API extern const float denoise_freq_linear2_bias[32];
QUIBO_API extern const float denoise_freq_norm2_weight[32];
QUIBO_API extern const float denoise_freq_norm2_bias[32];
QUIBO_API extern const float denoise_freq_gru3_weight[6144];
QUIBO_API extern const float denoise_freq_gru3_bias[128];
QUIBO_API extern const float denoise_freq_linear3_weight[1024];
QUIBO_API extern const float denoise_freq_linear3_bias[32];
QUIBO_API extern const float denoise_freq_norm3_weight[32];
QUIBO_API extern const float denoise_freq_norm3_bias[32];
QUIBO_API extern const float denoise_pixel_conv1_weight[9216];
QUIBO_API extern const float denoise_pixel_conv1_bias[32];
QUIBO_API extern const float denoise_pixel_conv2_weight[4608];
QUIBO_API extern const float denoise_pixel_conv2_bias[32];
QUIBO_API extern const float denoise_pixel_conv3_weight[2304];
QUIBO_API extern const float denoise_pixel_conv3_bias[16];
QUIBO_API extern const float denoise_pixel_conv4_weight[288];
QUIBO_API extern const float denoise_pixel_conv4_bias[4];

/* ---- Neural echo suppressor ----
 *
 * Removes the echo that the linear canceller leaves: a convolutional-recurrent mask network on the
 * spectra of the microphone D and of the residual E = D - Y (1024-point Hann frames, hop 512),
 * separate masks for the real and the imaginary part, applied to E of four hops earlier. Delay:
 * 2048 samples (128 ms) plus the framing of one hop. Recurrent states are static: create one
 * instance at a time. They survive QuibNAecUnit() and are cleared by the next QuibNAecInit(). */

/* Creates the suppressor, clears the recurrent states and stores it in *handle. Prints
 * ">QuibNAecInit\n" at the start, once there is a handle, and at the end. Returns 0 (three lines);
 * -2 when there is no memory for the handle (one line); -3 when there is none for anything later
 * (two lines; what was already created stays allocated). *handle is NULL on failure. */
QUIBO_API int32_t QuibNAecInit(void** handle);

/* One frame: mic, the microphone signal, and yn, the linear echo estimate, hold 1024 floats of full
 * scale 1.0 each (kesto_laec_micdata and kesto_laec_yn); out receives 1024 int16, within 0.99 of
 * full scale; the first 2048 samples of an instance are 0. Pointers other than the handle are not
 * checked. Returns 0, or -1, with nothing written, when handle is NULL. A sample that is no sound (a
 * NaN, an infinity, beyond +-10^6) counts as 0, so that it does not stay in the recurrent states;
 * frames made from int16 never hold one. */
QUIBO_API int32_t QuibNAecRun(void* handle, const float* mic, const float* yn, int16_t* out);

/* Releases the layers of the network, but neither its record nor the handle, whose memory outlives
 * the call. Returns 0, or -1 when handle is NULL. Call it once per handle. */
QUIBO_API int32_t QuibNAecUnit(void* handle);

/* Its parameters. Convolutions: output channels x input channels x times (oldest first; 2 in the
 * input and upsampling stages, 3 in encoder and decoder) x 3 frequencies, one bias and one PReLU
 * slope per output channel. Recurrent blocks: three gates r, z, n of 64 x 128 (columns of x, then
 * of h), biases r, z, n of x, n of h; a linear layer of 64 x 64. Last stage: 64 groups of 8 x 8. */
QUIBO_API extern const float aec_sys_real_conv_weight[4096];
QUIBO_API extern const float aec_sys_real_conv_bias[512];
QUIBO_API extern const float aec_sys_imag_conv_weight[4096];
QUIBO_API extern const float aec_sys_imag_conv_bias[512];
QUIBO_API extern const float aec_inp_conv1_weight[384];
QUIBO_API extern const float aec_inp_conv1_bias[16];
QUIBO_API extern const float aec_inp_prelu1_weight[16];
QUIBO_API extern const float aec_inp_conv2_weight[3072];
QUIBO_API extern const float aec_inp_conv2_bias[32];
QUIBO_API extern const float aec_inp_prelu2_weight[32];
QUIBO_API extern const float aec_inp_conv3_weight[9216];
QUIBO_API extern const float aec_inp_conv3_bias[48];
QUIBO_API extern const float aec_inp_prelu3_weight[48];
QUIBO_API extern const float aec_inp_conv4_weight[18432];
QUIBO_API extern const float aec_inp_conv4_bias[64];
QUIBO_API extern const float aec_inp_prelu4_weight[64];
QUIBO_API extern const float aec_enc_conv1_weight[36864];
QUIBO_API extern const float aec_enc_conv1_bias[64];
QUIBO_API extern const float aec_enc_prelu1_weight[64];
QUIBO_API extern const float aec_enc_conv2_weight[36864];
QUIBO_API extern const float aec_enc_conv2_bias[64];
QUIBO_API extern const float aec_enc_prelu2_weight[64];
QUIBO_API extern const float aec_enc_conv3_weight[36864];
QUIBO_API extern const float aec_enc_conv3_bias[64];
QUIBO_API extern const float aec_enc_prelu3_weight[64];
QUIBO_API extern const float aec_enc_conv4_weight[36864];
QUIBO_API extern const float aec_enc_conv4_bias[64];
QUIBO_API extern const float aec_enc_prelu4_weight[64];
QUIBO_API extern const float aec_time_gru1_weight[24576];
QUIBO_API extern const float aec_time_gru1_bias[256];
QUIBO_API extern const float aec_time_linear1_weight[4096];
QUIBO_API extern const float aec_time_linear1_bias[64];
QUIBO_API extern const float aec_time_gru2_weight[24576];
QUIBO_API extern const float aec_time_gru2_bias[256];
QUIBO_API extern const float aec_time_linear2_weight[4096];
QUIBO_API extern const float aec_time_linear2_bias[64];
QUIBO_API extern const float aec_time_gru3_weight[24576];
QUIBO_API extern const float aec_time_gru3_bias[256];
QUIBO_API extern const float aec_time_linear3_weight[4096];
QUIBO_API extern const float aec_time_linear3_bias[64];
QUIBO_API extern const float aec_freq_gru1_weight[24576];
QUIBO_API extern const float aec_freq_gru1_bias[256];
QUIBO_API extern const float aec_freq_linear1_weight[4096];
QUIBO_API extern const float aec_freq_linear1_bias[64];
QUIBO_API extern const float aec_freq_gru2_weight[24576];
QUIBO_API extern const float aec_freq_gru2_bias[256];
QUIBO_API extern const float aec_freq_linear2_weight[4096];
QUIBO_API extern const float aec_freq_linear2_bias[64];
QUIBO_API extern const float aec_freq_gru3_weight[24576];
QUIBO_API extern const float aec_freq_gru3_bias[256];
QUIBO_API extern const float aec_freq_linear3_weight[4096];
QUIBO_API extern const float aec_freq_linear3_bias[64];
QUIBO_API extern const float aec_dec_conv1_weight[36864];
QUIBO_API extern const float aec_dec_conv1_bias[64];
QUIBO_API extern const float aec_dec_prelu1_weight[64];
QUIBO_API extern const float aec_dec_conv2_weight[36864];
QUIBO_API extern const float aec_dec_conv2_bias[64];
QUIBO_API extern const float aec_dec_prelu2_weight[64];
QUIBO_API extern const float aec_dec_conv3_weight[36864];
QUIBO_API extern const float aec_dec_conv3_bias[64];
QUIBO_API extern const float aec_dec_prelu3_weight[64];
QUIBO_API extern const float aec_dec_conv4_weight[36864];
QUIBO_API extern const float aec_dec_conv4_bias[64];
QUIBO_API extern const float aec_dec_prelu4_weight[64];
QUIBO_API extern const float aec_pixel_conv1_weight[24576];
QUIBO_API extern const float aec_pixel_conv1_bias[64];
QUIBO_API extern const float aec_pixel_conv2_weight[6144];
QUIBO_API extern const float aec_pixel_conv2_bias[32];
QUIBO_API extern const float aec_pixel_conv3_weight[1536];
QUIBO_API extern const float aec_pixel_conv3_bias[16];
QUIBO_API extern const float aec_pixel_conv4_weight[192];
QUIBO_API extern const float aec_pixel_conv4_bias[4];

/* ---- Wake-up engine ----
 *
 * Spots the wake phrase "ling dang ling dang" in a 16 kHz stream, one block of 480 samples (30 ms)
 * per call: log-mel features, a quantised streaming network, 146 syllable posteriors, a keyword
 * decoder. Engines share module-level scratch: calls on different engines must not run at the same
 * time. */

typedef struct KTCWakeupParam KTCWakeupParam; /* quibo/wakeup/ChineseConv.h */

/* Builds network and decoder in p, whatever p held before, with no history. p must come from
 * malloc() or calloc(): KestoChineseWakeupUnit() frees it. Returns 0, or -1 after printing
 * "Net init error!\n" when p is NULL, memory runs out, the parameter tables break a rule, or the
 * keyword table cannot be read; p then holds what was allocated, and may only be released. Of the
 * keyword table one of these lines comes first: "word dict is empty!\n", "memory error!\n",
 * "word length exceeds MAX_PHONE_NUM!\n" (more than 38 syllables), "read dict: dp memory alloc
 * error!\n". */
QUIBO_API int32_t KestoChineseWakeupInit(KTCWakeupParam* p);

/* Forgets the samples heard, the network's state and the keyword scores. The wake threshold and the
 * time since the last wake are kept. Nothing happens when p is NULL. */
QUIBO_API void KestoChineseWakeupclear(KTCWakeupParam* p);

/* One block: exactly 480 samples, plain int16. Returns 0 when the phrase is heard at this block
 * (all history is then cleared), -1 when not, -10 when p is NULL. */
QUIBO_API int32_t KestoChineseWakeupWrite(KTCWakeupParam* p, const int16_t* samples);

/* Releases the engine and p itself. Returns 0, or -10 when p is NULL. */
QUIBO_API int32_t KestoChineseWakeupUnit(KTCWakeupParam* p);

/* The engine behind a handle. */

/* Sets *handle to NULL, creates an engine and stores it there. lang is accepted and ignored.
 * Returns 0; -1 when there is no memory for the records, -3 when KestoChineseWakeupInit() failed.
 * *handle stays NULL and nothing stays allocated on failure. */
QUIBO_API int32_t QuibWakeupInit(void** handle, int32_t lang);

/* One block of 480 samples. Returns 0 when the phrase is heard, -1 when not, -10 when handle is
 * NULL. */
QUIBO_API int32_t QuibWakeupWriteData(void* handle, const int16_t* samples);

/* Releases the engine. Returns 0, or -10 when handle is NULL. */
QUIBO_API int32_t QuibWakeupUnit(void* handle);

/* Its parameters (params/kws.safetensors): int8 weights, one row per output channel, taps
 * time-major (earlier frame first); int32 biases in units of input scale times weight scale, the
 * input zero point absorbed. */

/* Quantisation of all layers: input scale and zero points, multiplier/shift pairs, output scales,
 * whole numbers stored as floats; the order is in docs/quantisation.md. */
QUIBO_API extern const float chinese_fix_param[134];

/* Convolutions, kernels of frames x frequency positions. The biases of the per-channel ones are all
 * 0: their inputs' zero point is 0. */
QUIBO_API extern const int8_t
    chinese_conv1_weight[16 * 8]; /* [16][2 * 4]: 1 -> 16 channels, stride 2 in frequency */
QUIBO_API extern const int32_t chinese_conv1_bias[16];
QUIBO_API extern const int8_t
    chinese_conv2_1_weight[16 * 8]; /* [16][2 * 4]: per channel, stride 2 in frequency */
QUIBO_API extern const int32_t chinese_conv2_1_bias[16];
QUIBO_API extern const int8_t chinese_conv2_2_weight[48 * 16]; /* [48][16]: pointwise */
QUIBO_API extern const int32_t chinese_conv2_2_bias[48];
QUIBO_API extern const int8_t
    chinese_conv3_1_weight[48 * 8]; /* [48][2 * 4]: per channel, stride 2 in frequency */
QUIBO_API extern const int32_t chinese_conv3_1_bias[48];
QUIBO_API extern const int8_t chinese_conv3_2_weight[64 * 48]; /* [64][48]: pointwise */
QUIBO_API extern const int32_t chinese_conv3_2_bias[64];
QUIBO_API extern const int8_t
    chinese_conv4_1_weight[64 * 9]; /* [64][3 * 3]: per channel, over the whole block */
QUIBO_API extern const int32_t chinese_conv4_1_bias[64];
QUIBO_API extern const int8_t chinese_conv4_2_weight[128 * 64]; /* [128][64]: pointwise */
QUIBO_API extern const int32_t chinese_conv4_2_bias[128];

/* Recurrent unit 128 -> 128, rows in the order r, z, n: input side and state side. */
QUIBO_API extern const int8_t chinese_gru_weight_ih_l0[384 * 128];
QUIBO_API extern const int8_t chinese_gru_weight_hh_l0[384 * 128];
QUIBO_API extern const int32_t chinese_gru_bias_ih_l0[384];
QUIBO_API extern const int32_t chinese_gru_bias_hh_l0[384];

/* Four memory blocks: dense to 164 channels (from 128 in the first, 256 in the others), the filter
 * over each channel's 8 previous steps (oldest first), dense to 256, layer normalisation. */
QUIBO_API extern const int8_t chinese_d1_in_conv1_weight[164 * 128];
QUIBO_API extern const int32_t chinese_d1_in_conv1_bias[164];
QUIBO_API extern const int8_t chinese_d1_left_conv1_weight[164 * 8];
QUIBO_API extern const int32_t chinese_d1_left_conv1_bias[164];
QUIBO_API extern const int8_t chinese_d1_out_conv1_weight[256 * 164];
QUIBO_API extern const int32_t chinese_d1_out_conv1_bias[256];
QUIBO_API extern const float chinese_ln1_weight[256];
QUIBO_API extern const float chinese_ln1_bias[256];
QUIBO_API extern const int8_t chinese_d2_in_conv1_weight[164 * 256];
QUIBO_API extern const int32_t chinese_d2_in_conv1_bias[164];
QUIBO_API extern const int8_t chinese_d2_left_conv1_weight[164 * 8];
QUIBO_API extern const int32_t chinese_d2_left_conv1_bias[164];
QUIBO_API extern const int8_t chinese_d2_out_conv1_weight[256 * 164];
QUIBO_API extern const int32_t chinese_d2_out_conv1_bias[256];
QUIBO_API extern const float chinese_ln2_weight[256];
QUIBO_API extern const float chinese_ln2_bias[256];
QUIBO_API extern const int8_t chinese_d3_in_conv1_weight[164 * 256];
QUIBO_API extern const int32_t chinese_d3_in_conv1_bias[164];
QUIBO_API extern const int8_t chinese_d3_left_conv1_weight[164 * 8];
QUIBO_API extern const int32_t chinese_d3_left_conv1_bias[164];
QUIBO_API extern const int8_t chinese_d3_out_conv1_weight[256 * 164];
QUIBO_API extern const int32_t chinese_d3_out_conv1_bias[256];
QUIBO_API extern const float chinese_ln3_weight[256];
QUIBO_API extern const float chinese_ln3_bias[256];
QUIBO_API extern const int8_t chinese_d4_in_conv1_weight[164 * 256];
QUIBO_API extern const int32_t chinese_d4_in_conv1_bias[164];
QUIBO_API extern const int8_t chinese_d4_left_conv1_weight[164 * 8];
QUIBO_API extern const int32_t chinese_d4_left_conv1_bias[164];
QUIBO_API extern const int8_t chinese_d4_out_conv1_weight[256 * 164];
QUIBO_API extern const int32_t chinese_d4_out_conv1_bias[256];
QUIBO_API extern const float chinese_ln4_weight[256];
QUIBO_API extern const float chinese_ln4_bias[256];

/* Dense 256 -> 146 classes: 0 filler, 1..144 syllables (params/syllables.txt), 145 blank. */
QUIBO_API extern const int8_t chinese_fc_weight[146 * 256];
QUIBO_API extern const int32_t chinese_fc_bias[146];

/* ---- Direction estimator ----
 *
 * Steps of 480 samples (30 ms) of three microphones on a circle. A network turns each step into a
 * vector whose heading points at the talker and whose length is its confidence; docs/direction.md
 * has the conventions. */

typedef void* KTDHandle;
typedef struct DoaNet DoaNet; /* quibo/doa/ring_doa.h */

/* Creates an estimator in *handle, which is set to NULL first. Returns 0, or -10 when its record
 * cannot be allocated, or -1 after printing "初始化DOA模型失败！\n" when the network cannot; what
 * was built of it then stays allocated. */
QUIBO_API int32_t kesto_customs_doa_init(KTDHandle* handle);

/* One block: mic1..mic3 hold 480 new samples each, read and not kept. outdata is not used and may
 * be NULL. rcg_ret: non-zero when a wake was heard in this block. Returns -1 without a wake. With
 * one, returns the talker's heading in degrees, 0..360, taken from the longest vector of the last
 * 15 blocks, and forgets these blocks; or -1 when that heading is negative (exactly along -x).
 * Returns -10 when handle is NULL. */
QUIBO_API int32_t kesto_customs_doa_write(KTDHandle handle, const int16_t* mic1,
                                          const int16_t* mic2, const int16_t* mic3,
                                          int16_t* outdata, int32_t rcg_ret);

/* Releases an estimator; nothing happens for NULL. */
QUIBO_API void kesto_customs_doa_unit(KTDHandle handle);

/* The layer below: a network record that the caller holds. */

/* Builds the network in *net, whose content on entry does not matter. Returns 0, or 1 at the first
 * allocation that fails; destroy_doa_net() then releases what was built. */
QUIBO_API int32_t init_doa_net(DoaNet* net);

/* Releases what init_doa_net() built; the record itself stays the caller's. */
QUIBO_API void destroy_doa_net(DoaNet* net);

/* One block, as kesto_customs_doa_write(), but a heading along -x is returned as it comes out:
 * -89. */
QUIBO_API int32_t proc_one_frame(DoaNet* doanet, const int16_t* mic1, const int16_t* mic2,
                                 const int16_t* mic3, int32_t rcg_ret);

/* Heading of the longest vector among the last 15 blocks, the earliest of equals, in whole degrees,
 * -89..360; blocks whose vector is not a number are passed over, and with no vector left the answer
 * is 0. Empties the window. */
QUIBO_API int32_t doa_decision(DoaNet* doanet);

/* The network's parameters (params/doa.safetensors), row-major. */

/* First convolution: 4 input channels, 2 frames x 4 values, 16 output channels. */
QUIBO_API extern const float ring_conv1_weight[512]; /* [16][4][2][4] */
QUIBO_API extern const float ring_conv1_bias[16];
/* Depth-wise-separable layers: taps per channel, then a pointwise matrix. */
QUIBO_API extern const float ring_conv2_1_weight[128]; /* [16][2][4] */
QUIBO_API extern const float ring_conv2_2_weight[448]; /* [28][16] */
QUIBO_API extern const float ring_conv2_2_bias[28];
QUIBO_API extern const float ring_conv3_1_weight[224];  /* [28][2][4] */
QUIBO_API extern const float ring_conv3_2_weight[1008]; /* [36][28] */
QUIBO_API extern const float ring_conv3_2_bias[36];
QUIBO_API extern const float ring_conv4_1_weight[324];  /* [36][3][3] */
QUIBO_API extern const float ring_conv4_2_weight[2304]; /* [64][36] */
QUIBO_API extern const float ring_conv4_2_bias[64];
/* GRU of 64 units; rows stacked reset, update, new. */
QUIBO_API extern const float ring_gru_weight_ih_l0[12288]; /* [192][64] */
QUIBO_API extern const float ring_gru_weight_hh_l0[12288]; /* [192][64] */
QUIBO_API extern const float ring_gru_bias_ih_l0[192];
QUIBO_API extern const float ring_gru_bias_hh_l0[192];
/* DFSMN layers: projection to 108 units, taps over the past 6 blocks, output, layer norm. */
QUIBO_API extern const float ring_d1_conv_in[6912];   /* [108][64] */
QUIBO_API extern const float ring_d1_conv_left[648];  /* [108][6] */
QUIBO_API extern const float ring_d1_conv_out[17712]; /* [164][108] */
QUIBO_API extern const float ring_d1_out_bias[164];
QUIBO_API extern const float ring_ln1_weight[164];
QUIBO_API extern const float ring_ln1_bias[164];
QUIBO_API extern const float ring_d2_conv_in[17712];  /* [108][164] */
QUIBO_API extern const float ring_d2_conv_left[648];  /* [108][6] */
QUIBO_API extern const float ring_d2_conv_out[17712]; /* [164][108] */
QUIBO_API extern const float ring_d2_out_bias[164];
QUIBO_API extern const float ring_ln2_weight[164];
QUIBO_API extern const float ring_ln2_bias[164];
QUIBO_API extern const float ring_d3_conv_in[17712];  /* [108][164] */
QUIBO_API extern const float ring_d3_conv_left[648];  /* [108][6] */
QUIBO_API extern const float ring_d3_conv_out[17712]; /* [164][108] */
QUIBO_API extern const float ring_d3_out_bias[164];
QUIBO_API extern const float ring_ln3_weight[164];
QUIBO_API extern const float ring_ln3_bias[164];
QUIBO_API extern const float ring_d4_conv_in[17712];  /* [108][164] */
QUIBO_API extern const float ring_d4_conv_left[648];  /* [108][6] */
QUIBO_API extern const float ring_d4_conv_out[17712]; /* [164][108] */
QUIBO_API extern const float ring_d4_out_bias[164];
QUIBO_API extern const float ring_ln4_weight[164];
QUIBO_API extern const float ring_ln4_bias[164];
/* Output layer: x, y. */
QUIBO_API extern const float ring_fc_weight[328]; /* [2][164] */
QUIBO_API extern const float ring_fc_bias[2];

/* ---- Output limiter ----
 *
 * Make-up gain with a look-ahead of 15 samples. The front end initialises one and does not run it. */

typedef struct stMPO stMPO; /* quibo/limiter/zq_MPO.h; the caller allocates it */

/* fs in Hz, increasedB (make-up gain) in dB, maxLev (largest output level) in dBFS. Returns 0. */
QUIBO_API int32_t zq_MPO_Init(stMPO* mpo, int32_t fs, int32_t increasedB, int32_t maxLev);

/* Processes `len` samples of full scale 1.0 into output (float) and Soutput (int16); either may be
 * NULL. The output lags the input by 15 samples. Nothing happens for len <= 0. Returns 0. */
QUIBO_API int32_t zq_MPO_process(stMPO* mpo, const float* input, float* output, int16_t* Soutput,
                                 int32_t len);

#ifdef __cplusplus
}
#endif

#endif /* QUIBO_QUIBO_H_ */
