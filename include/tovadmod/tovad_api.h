#ifndef TOVADMOD_TOVAD_API_H_
#define TOVADMOD_TOVAD_API_H_

// libtovadmod: voice activity detection on 16 kHz, 16-bit mono PCM.
//
// Positions are frame indices (160 samples, 10 ms) counted from the last
// reset; -1 means "not set".  A handle is used by one thread at a time.
// Start-up failures (missing conf, model or key) print a line to stderr
// and abort(): Tovad_toolkit_init never returns null.
//
// Typical use:
//   void* h = Tovad_toolkit_init("vad.conf", "/path/to/model_dir");
//   int start = -1, end = -1;
//   while (more audio) {
//     Tovad_toolkit_predict(h, n, pcm, &start, &end);
//     if (end >= 0) { /* segment [start, end]; fetch it, then: */
//       Tovad_toolkit_reset(h, false);
//       start = end = -1;
//     }
//   }
//   Tovad_toolkit_destory(h);

#include "tovadmod/export.h"

// Creates a handle from `config_file`.  When `config_path` is neither null
// nor empty, the file is read from `config_path`/`config_file` and the
// model paths in it are taken relative to `config_path`.  The caller owns
// the handle and frees it with Tovad_toolkit_destory.
TOVAD_EXPORT void* Tovad_toolkit_init(const char* config_file, const char* config_path);

// Feeds `n_samples` samples (any block size; a partial frame is kept for
// the next call).  After each complete frame, writes the current segment's
// start and end to *vad_start and *vad_end; a call that completes no frame
// leaves them untouched, so initialise them to -1.  Once a segment has
// ended the pair stays frozen until Tovad_toolkit_reset.  Returns 0.
TOVAD_EXPORT int Tovad_toolkit_predict(void* handle, int n_samples, const short* pcm,
                                       int* vad_start, int* vad_end);

// Restarts frame numbering, drops the partial frame and the audio history.
// `full` false keeps feature history and filters warm (between segments);
// `full` true restarts them too.  Returns 0.
TOVAD_EXPORT int Tovad_toolkit_reset(void* handle, bool full);

// Frees the handle and everything it owns.  Returns 0.
TOVAD_EXPORT int Tovad_toolkit_destory(void* handle);

// Primes the front end's running statistics with `n_samples` of typical
// audio (or with built-in low-level noise when `pcm` is null or shorter
// than 8000 samples).  Returns 0.
TOVAD_EXPORT int Tovad_toolkit_pre_set_filter(void* handle, int n_samples, const short* pcm);

// Points *data at the raw samples from the current segment's start up to
// the newest complete frame (*n_samples of them), or null and 0 if no
// segment has started.  The memory belongs to the handle and stays valid
// until the next predict, reset or destroy: copy what you keep.  Returns 0.
TOVAD_EXPORT int Tovad_toolkit_get_vad_segment_raw_data(void* handle, int* n_samples,
                                                        short** data);

// Frames per net run (the `n_batch` key).
TOVAD_EXPORT int Tovad_toolkit_get_batch_size(void* handle);
// The suspected (early) segment end, or -1.
TOVAD_EXPORT int Tovad_toolkit_get_suspected_vad_end(void* handle);
// 1 when more than `n_max_continuous_sil_frame` silent frames in a row were seen.
TOVAD_EXPORT int Tovad_toolkit_check_sil_frame(void* handle);
// The conf values `extra_leading_sil`, `voice_to_sil_hangover` and
// `sil_to_voice_hangover` of the main decision path.
TOVAD_EXPORT int Tovad_toolkit_get_leading_sil(void* handle);
TOVAD_EXPORT int Tovad_toolkit_get_voice_to_sil_th(void* handle);
TOVAD_EXPORT int Tovad_toolkit_get_sil_to_voice_th(void* handle);

// The score thresholds of the main and the suspected path (0.0 if there is
// no suspected path); a new value applies from the next frame.
TOVAD_EXPORT float TOVAD_toolkit_get_curr_wkp_threshold(void* handle);
TOVAD_EXPORT float TOVAD_toolkit_get_curr_suspected_wkp_threshold(void* handle);
TOVAD_EXPORT void TOVAD_toolkit_set_wkp_threshold(void* handle, float threshold);
TOVAD_EXPORT void TOVAD_toolkit_set_suspected_wkp_threshold(void* handle, float threshold);

#endif  // TOVADMOD_TOVAD_API_H_
