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
 *     int32_t angle = Quibo_doa_three_write_data(front_end, &wake, out1, out2, out3, clean,
 * QUIBO_FRAME); if (wake >= 0) heard(); if (angle >= 0) point_to(angle);                // degrees,
 * 0..359
 *   }
 *   Quibo_wakeup_unit(front_end);
 *
 * AUDIO
 *   16 kHz, one channel per buffer, signed 16 bit at the interface; a frame is 1024 samples (64
 * ms). Floats are int16 x 2^-15 (full scale 1.0). Float to int16 truncates toward zero at 32 bits
 * (saturating there) and keeps the low 16 bits: 1.0 becomes -32768. This wrap is deliberate.
 *
 * CONVENTIONS
 *   Functions return a signed 32-bit status, 0 (or a non-negative result) on success, negative on
 * failure. Buffers belong to the caller and are not kept. Handles are created by an init call and
 * released by the matching unit call. Memory comes from malloc/calloc at init only; the per-frame
 * calls allocate nothing. Diagnostics are the lines quoted below, on standard output.
 *
 * THREADS
 *   None are started and nothing is locked. Modules share module-level work areas: one front end
 * per process, driven from one thread at a time.
 *
 * The records behind the pointers are defined in the modules' own headers (quibo/api/WakeupApi.h,
 * quibo/aec/Laec.h, quibo/aec/aecpostapi.h, quibo/aec/aec_denoise.h, quibo/denoise/denoise.h,
 * quibo/limiter/zq_MPO.h). C99 and C++17. */
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

/* ---- Front end
 * -----------------------------------------------------------------------------------------------
 */

typedef struct KTWakeupParams* KTWakeup;

/* Creates a front end and stores it in *handle, which must be NULL on entry. `lang` is handed to
 * the wake-up engine, which has one language and ignores it; pass 0. Prints the echo suppressor's
 * lines and "Version:libquibo_wakeup_DOA_v3.3.22_20251103\n". Returns 0, or, leaving *handle
 * unchanged and what was already created allocated:
 *
 * - -1: *handle is not NULL
 * - -2: no memory for the record
 * - -3, -4, -5: echo canceller of microphone 1, 2, 3
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
 * samples to account for; pass 1024 (the call always reads 1024 samples of each microphone).
 * *Iswakeup receives -1 when no wake was heard in this call, 0 when the wake phrase was heard.
 * Returns the talker's direction in degrees, 0..359, when a wake gave one; else -1; or -10 after
 * printing "kesto_doa_three_write_data error\n", with *Iswakeup untouched, when handle is NULL. */
QUIBO_API int32_t Quibo_doa_three_write_data(KTWakeup handle, int32_t* Iswakeup,
                                             const int16_t* mic1_data, const int16_t* mic2_data,
                                             const int16_t* mic3_data, const int16_t* naec_data,
                                             int32_t len);

/* Releases a front end and all it created. Returns 0, or -1 when handle is NULL. */
QUIBO_API int32_t Quibo_wakeup_unit(KTWakeup handle);

/* ---- Sample codec
 * --------------------------------------------------------------------------------------------
 * Microphone samples reach the library scrambled: a sample of magnitude m in 1..4800 is replaced by
 * table[m] with its sign; 0 and larger magnitudes pass as they are. Entry 0 of the tables is never
 * read. */

QUIBO_API extern const int16_t enc_table[4801];
QUIBO_API extern const int16_t dec_table[4801];

/* Scramble / descramble `len` samples in place; nothing happens for len <= 0. */
QUIBO_API void enc_data(int16_t* indata, int32_t len);
QUIBO_API void dec_data(int16_t* indata, int32_t len);

/* ---- Linear echo canceller
 * ---------------------------------------------------------------------------------- Adaptive
 * filter of 3 x 1024 taps (192 ms) with a residual-echo gain; 1024-sample frames. */

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

/* The canceller behind a handle, with int16 in and float out. */

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

/* Releases a canceller. Returns 0, or -1 when handle is NULL. */
QUIBO_API int32_t kesto_Laec_Post_unit(void* handle);

/* ---- Noise suppressor
 * A convolutional-recurrent mask network on the short-time spectrum (1024-point Hann frames, hop
 * 512); separate masks for the real and the imaginary part, applied to the spectrum of four hops
 * earlier. Delay: 2048 samples (128 ms) plus the framing of one hop. All instances share one set of
 * recurrent states, deliberately: the front end runs three of them in turns on one scene. */

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

/* ---- Neural echo suppressor
 * Removes the echo that the linear canceller leaves: a convolutional-recurrent mask network on the
 * spectra of the microphone D and of the residual E = D - Y (1024-point Hann frames, hop 512),
 * separate masks for the real and the imaginary part, applied to E of four hops earlier. Delay:
 * 2048 samples (128 ms) plus the framing of one hop. Recurrent states are static: create one
 * instance at a time. */

/* Creates the suppressor, clears the recurrent states and stores it in *handle. Prints
 * ">QuibNAecInit\n" at the start, once there is a handle, and at the end. Returns 0 (three lines);
 * -2 when there is no memory for the handle (one line); -3 when there is none for anything later
 * (two lines; what was already created stays allocated). *handle is NULL on failure. */
QUIBO_API int32_t QuibNAecInit(void** handle);

/* One frame: mic, the microphone signal, and yn, the linear echo estimate, hold 1024 floats of full
 * scale 1.0 each (kesto_laec_micdata and kesto_laec_yn); out receives 1024 int16, within 0.99 of
 * full scale; the first 2048 samples of an instance are 0. Pointers other than the handle are not
 * checked. Returns 0, or -1, with nothing written, when handle is NULL. A NaN or an infinity in an
 * input stays in the recurrent states: the output is 0 from then on, until the next QuibNAecInit.
 * Frames made from int16 never hold one. */
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

/* ---- Output limiter
 * ----------------------------------------------------------------------------------------- Make-up
 * gain with a look-ahead of 15 samples. The front end initialises one and does not run it. */

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
