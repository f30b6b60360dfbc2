#ifndef RUVO_SRC_LAYER_QUANTI_UTIL_H_
#define RUVO_SRC_LAYER_QUANTI_UTIL_H_

// The fixed-point rules every 8-bit layer shares.  An 8-bit tensor q with
// shift s stands for q / 2^s; a 32-bit accumulator of a product carries the
// sum of its factors' shifts.  Right shifts are arithmetic (toward minus
// infinity) and take their count modulo 32; there is no rounding step
// anywhere, and narrowing saturates.  Shifts travel along the graph in
// NDArray::shift_, written by each layer as the last step of Forward.

#include <cstdint>
#include <string>
#include <vector>

#include "ruvo/ndarray.h"

namespace orvik {
namespace ruvo {
namespace quanti {

// v >> (s mod 32), arithmetic.
inline int32_t ShiftRight(int32_t v, int32_t s) { return v >> (s & 31); }

// Sign-extended v << (s mod 32), wrapping.
inline int32_t ShiftLeft(int32_t v, int32_t s) {
  return static_cast<int32_t>(static_cast<uint32_t>(v) << (s & 31));
}

// Two's complement wrapping add and multiply.
inline int32_t WrapAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t WrapMul(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

inline signed char SaturateInt8(int32_t v) {
  return static_cast<signed char>(v > 127 ? 127 : (v < -128 ? -128 : v));
}

inline int32_t SaturateInt16(int32_t v) { return v > 32767 ? 32767 : (v < -32768 ? -32768 : v); }

// acc / 2^e as float: the exponent field of float(acc) is lowered by e.
// Zero stays zero; an exponent that runs out of range is not guarded.
inline float ScaleDown(int32_t acc, int32_t e) {
  if (acc == 0) return 0.0f;
  const float f = static_cast<float>(acc);
  uint32_t bits;
  static_assert(sizeof(bits) == sizeof(f), "float is 32 bits");
  __builtin_memcpy(&bits, &f, sizeof(bits));
  bits -= static_cast<uint32_t>(e) << 23;
  float r;
  __builtin_memcpy(&r, &bits, sizeof(r));
  return r;
}

// Element 0 of a one-element shift table (an auxiliary state), sign-extended.
// Fatal unless the blob is 8-bit and holds at least one element.
int32_t ReadShift(const NDArray& history, const char* what);

// Checks that `table` is an 8-bit table of exactly `n` entries; `what`
// names it in the message.
void CheckShiftTable(const NDArray& table, index_t n, const char* what);

// The fused stage behind every 8-bit matrix product, over `positions` rows of
// `channels` 32-bit accumulators.  Steps, in this order, each optional:
// bias (wrapping add), batch normalisation (right shift, 16-bit saturation,
// multiply), one further 8-bit tensor aligned to the accumulator's scale,
// then the narrowing to 8 bits at out_shift (or to float).  The caller
// fills the fields that apply and leaves the others null.
struct OutputStage {
  int32_t channels = 0;
  // Weight shift of each channel; the accumulator of channel c has
  // w[c] + in_shift fractional bits.
  const signed char* w = nullptr;
  int32_t in_shift = 0;
  int32_t out_shift = 0;
  const int32_t* bias = nullptr;  // per channel, at the accumulator's scale
  const int32_t* bn_weight = nullptr;
  const signed char* bn_right_shift = nullptr;
  const signed char* edata = nullptr;  // same layout as the output
  int32_t edata_shift = 0;
  bool use_activation = false;
  bool disable_output_quantization = false;
  // With disable_output_quantization: every channel is first cut to the
  // coarsest channel's grid (its accumulator shifted right by the
  // difference), then scaled by powf(2, -that exponent).
  bool align_output_shift = false;

  // Alignment exponent m: 0 when the further tensor can be shifted up to
  // every channel's scale, else the most negative alignment (the tensor is
  // then skipped and m lowers the output's right shift).
  int32_t EdataAlignment() const;

  // Fills what every matrix layer sets alike: channels and w from its built
  // weight shift table, the input shift, the output shift of aux[0] (named
  // `out_shift_name`), the bias, and with bn_first other than kNoBatchNorm
  // bn_weight and bn_right_shift from aux[bn_first] and aux[bn_first + 1].
  void SetMatrix(const NDArray& weight_shift, int32_t num_channels, int32_t input_shift,
                 const std::vector<NDArray*>& aux, const char* out_shift_name,
                 const int32_t* bias_table, int32_t bn_first);

  // Runs bias, batch normalisation and the further tensor in place on acc
  // (positions x channels, row-major), then writes the narrowed result to
  // out8 (or outf with disable_output_quantization).
  void Run(int32_t* acc, index_t positions, signed char* out8, float* outf) const;
  // Run into the whole of `top` (8-bit or float as disable_output_quantization
  // says), whose shift_ becomes out_shift.
  void RunInto(int32_t* acc, index_t positions, NDArray* top) const;
};

// The one-frame product of a matrix layer: the weight, constant once the
// layer is set up, packed once for the one-row kernel, with the stage's
// narrowing done in the kernel's epilogue when nothing (batch
// normalisation, a further tensor, float output) stands between them.
class PackedRowProduct {
 public:
  // B(p, j) = weight[j * depth + p] for `channels` columns of `depth`.
  void Pack(const signed char* weight, int32_t channels, int32_t depth);
  bool empty() const { return packed_.empty(); }
  // Whether Narrow serves `stage`.
  static bool Fuses(const OutputStage& stage) {
    return stage.bn_weight == nullptr && stage.edata == nullptr &&
           !stage.disable_output_quantization;
  }
  // acc[j] = sum_p a[p] * B(p, j), wrapping: what the stage's Run takes.
  void Sums(const signed char* a, int32_t* acc) const;
  // What stage.Run makes of those sums, for one position, straight to out8.
  void Narrow(const signed char* a, const OutputStage& stage, signed char* out8);

 private:
  int32_t channels_ = 0, depth_ = 0;
  std::vector<signed char> packed_;
  // Right shift of each channel (taken modulo 32), for the in and out
  // shifts of the last call; they are normally the same every call.
  std::vector<unsigned char> shift_;
  int32_t shift_in_ = 0, shift_out_ = 0;
  bool shift_valid_ = false;
};

// Marks a matrix layer without a fused batch normalisation.
constexpr int32_t kNoBatchNorm = -1;

// Builds the per-channel weight shift table w of a matrix layer from its
// auxiliary states (in file order): the scalar aux[1] replicated, or the
// per-channel table with vector_quanti.  With bn_first (the index of
// bn_weight) other than kNoBatchNorm, bn_weight_shift - bn_right_shift is
// folded in (8-bit wrapping) and bn_weight must be a 32-bit table of one
// entry per channel.  `table` becomes a new array of `channels` entries
// unless it may share the loaded table.
void BuildWeightShiftTable(const std::vector<NDArray*>& aux, bool vector_quanti, int32_t bn_first,
                           int32_t channels, NDArray* table);

// Fatal unless `bias` is a 32-bit table of `n` entries; `layer` names the
// layer in the message.
void CheckBias(const NDArray& bias, index_t n, const char* layer);

// The auxiliary states of an 8-bit matrix layer, in file order: the output
// shift under `output_shift_name`, the weight shift and (with a bias) the
// bias shift tables, per channel with vector_quanti, then the three fused
// batch-normalisation tables.
std::vector<std::string> MatrixAuxStates(const char* output_shift_name, bool vector_quanti,
                                         bool has_bias, bool use_batchnorm);
// Their shapes for `channels` outputs.
std::vector<TShape> MatrixAuxShapes(index_t channels, bool vector_quanti, bool has_bias,
                                    bool use_batchnorm);
// InferType of an 8-bit matrix layer with inputs (data, weight[, bias]...):
// unknown inputs take the data's type but a bias is 32-bit, the output is
// float with disable_output_quantization, the shift tables take the data's
// type and bn_weight is 32-bit.
void MatrixInferType(std::vector<int>& in_type, std::vector<int>& out_type,
                     std::vector<int>& aux_type, bool has_bias, bool disable_output_quantization,
                     bool use_batchnorm);

}  // namespace quanti
}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_QUANTI_UTIL_H_
