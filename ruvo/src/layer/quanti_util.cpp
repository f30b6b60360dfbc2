#include "ruvo/src/layer/quanti_util.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "orvik_blas_64/src/math_functions.h"
#include "orvik_blas_64/src/orvik_blas_quanti/orvik_blas_i8.h"
#include "orviklog/src/checks.h"
#include "orviklog/src/logging.h"

namespace orvik {
namespace ruvo {
namespace quanti {

int32_t ReadShift(const NDArray& history, const char* what) {
  CHECK(!history.is_none()) << what << " is not loaded";
  CHECK_GE(history.Size(), 1) << what << " is empty";
  return history.dptr<signed char>()[0];
}

void CheckShiftTable(const NDArray& table, index_t n, const char* what) {
  CHECK(!table.is_none()) << what << " is not loaded";
  CHECK(table.Size() == n) << what << " must hold one entry per output channel";
}

int32_t OutputStage::EdataAlignment() const {
  if (edata == nullptr) return 0;
  int32_t m = 0;
  for (int32_t c = 0; c < channels; ++c) m = std::min(m, w[c] + in_shift - edata_shift);
  return m;
}

void OutputStage::SetMatrix(const NDArray& weight_shift, int32_t num_channels, int32_t input_shift,
                            const std::vector<NDArray*>& aux, const char* out_shift_name,
                            const int32_t* bias_table, int32_t bn_first) {
  channels = num_channels;
  w = weight_shift.dptr<signed char>();
  in_shift = input_shift;
  out_shift = ReadShift(*aux[0], out_shift_name);
  bias = bias_table;
  if (bn_first != kNoBatchNorm) {
    bn_weight = aux[bn_first]->dptr<int>();
    bn_right_shift = aux[bn_first + 1]->dptr<signed char>();
  }
}

void OutputStage::RunInto(int32_t* acc, index_t positions, NDArray* top) const {
  Run(acc, positions, disable_output_quantization ? nullptr : top->dptr<signed char>(),
      disable_output_quantization ? top->dptr<float>() : nullptr);
  top->shift_ = out_shift;
}

void OutputStage::Run(int32_t* acc, index_t positions, signed char* out8, float* outf) const {
  const size_t nc = static_cast<size_t>(channels);
  if (bias != nullptr) {
    for (index_t p = 0; p < positions; ++p) {
      int32_t* row = acc + p * nc;
      for (size_t c = 0; c < nc; ++c) row[c] = WrapAdd(row[c], bias[c]);
    }
  }
  if (bn_weight != nullptr) {
    for (size_t c = 0; c < nc; ++c) {
      if (bn_right_shift[c] < 0) abort();
    }
    for (index_t p = 0; p < positions; ++p) {
      int32_t* row = acc + p * nc;
      for (size_t c = 0; c < nc; ++c) {
        row[c] = WrapMul(SaturateInt16(ShiftRight(row[c], bn_right_shift[c])), bn_weight[c]);
      }
    }
  }
  const int32_t m = EdataAlignment();
  if (edata != nullptr) {
    if (m == 0) {
      for (index_t p = 0; p < positions; ++p) {
        int32_t* row = acc + p * nc;
        const signed char* e = edata + p * nc;
        for (size_t c = 0; c < nc; ++c) {
          row[c] = WrapAdd(row[c], ShiftLeft(e[c], w[c] + in_shift - edata_shift));
        }
      }
    } else {
      RTC_LOG(LS_ENGINE) << "edata's shift is greater than the shift of conv's output!";
    }
  }

  if (disable_output_quantization && align_output_shift) {
    int32_t align_shift = 128;
    for (int32_t c = 0; c < channels; ++c) align_shift = std::min(align_shift, w[c] + in_shift - m);
    CHECK(align_shift != 128);
    const float scale = powf(2.0f, static_cast<float>(-align_shift));
    for (index_t p = 0; p < positions; ++p) {
      const int32_t* row = acc + p * nc;
      float* o = outf + p * nc;
      for (size_t c = 0; c < nc; ++c) {
        const int32_t v = use_activation && row[c] < 0 ? 0 : row[c];
        o[c] = static_cast<float>(ShiftRight(v, w[c] + in_shift - m - align_shift)) * scale;
      }
    }
    return;
  }
  if (disable_output_quantization) {
    for (index_t p = 0; p < positions; ++p) {
      const int32_t* row = acc + p * nc;
      float* o = outf + p * nc;
      for (size_t c = 0; c < nc; ++c) {
        const int32_t v = use_activation && row[c] < 0 ? 0 : row[c];
        o[c] = ScaleDown(v, w[c] + in_shift - m);
      }
    }
    return;
  }
  // With one right shift for all channels (a per-layer weight shift) the
  // narrowing is a plain clamp over the whole block, which vectorises; the
  // rectified form is the clamp to [0, 127], as a negative sum shifts to a
  // negative value.
  const int32_t lo = use_activation ? 0 : -128;
  const int32_t s0 = (w[0] + in_shift - out_shift - m) & 31;
  bool uniform = true;
  for (size_t c = 1; c < nc; ++c)
    uniform = uniform && ((w[c] + in_shift - out_shift - m) & 31) == s0;
  if (uniform) {
    const size_t total = static_cast<size_t>(positions) * nc;
    for (size_t i = 0; i < total; ++i) {
      const int32_t v = acc[i] >> s0;
      out8[i] = static_cast<signed char>(v < lo ? lo : (v > 127 ? 127 : v));
    }
    return;
  }
  for (index_t p = 0; p < positions; ++p) {
    const int32_t* row = acc + p * nc;
    signed char* o = out8 + p * nc;
    for (size_t c = 0; c < nc; ++c) {
      const int32_t v = ShiftRight(row[c], w[c] + in_shift - out_shift - m);
      o[c] = static_cast<signed char>(v < lo ? lo : (v > 127 ? 127 : v));
    }
  }
}

void PackedRowProduct::Pack(const signed char* weight, int32_t channels, int32_t depth) {
  channels_ = channels;
  depth_ = depth;
  packed_.assign(orvik_i8_packed_b_bytes(channels, depth), 0);
  orvik_i8_pack_b(1, channels, depth, weight, packed_.data());
  shift_.assign(static_cast<size_t>(channels), 0);
  shift_valid_ = false;
}

void PackedRowProduct::Sums(const signed char* a, int32_t* acc) const {
  orvik_i8_gemv_packed(channels_, depth_, a, packed_.data(), nullptr, nullptr, 0, acc, nullptr);
}

void PackedRowProduct::Narrow(const signed char* a, const OutputStage& stage, signed char* out8) {
  if (!shift_valid_ || shift_in_ != stage.in_shift || shift_out_ != stage.out_shift) {
    // Without a further tensor the alignment m is 0.
    for (int32_t c = 0; c < channels_; ++c) {
      shift_[c] = static_cast<unsigned char>((stage.w[c] + stage.in_shift - stage.out_shift) & 31);
    }
    shift_in_ = stage.in_shift;
    shift_out_ = stage.out_shift;
    shift_valid_ = true;
  }
  orvik_i8_gemv_packed(channels_, depth_, a, packed_.data(), stage.bias, shift_.data(),
                       stage.use_activation ? 0 : -128, nullptr, out8);
}

namespace {

void FoldWeightShifts(const NDArray& scalar_or_vec, bool vector_quanti, bool use_batchnorm,
                      const NDArray* bn_weight_shift, const NDArray* bn_right_shift,
                      int32_t channels, NDArray* table) {
  const index_t n = static_cast<index_t>(channels);
  if (vector_quanti) {
    CheckShiftTable(scalar_or_vec, n, "weight_vec_shift_history");
    if (!use_batchnorm) {
      // Nothing to fold: the loaded table serves as it is.
      *table = scalar_or_vec;
      return;
    }
    *table = NDArray(TShape{n}, kInt8);
    std::memcpy(table->dptr<signed char>(), scalar_or_vec.dptr<signed char>(), n);
  } else {
    *table = NDArray(TShape{n}, kInt8);
    math::orvik_set<signed char>(
        channels, static_cast<signed char>(ReadShift(scalar_or_vec, "weight_shift_history")),
        table->dptr<signed char>());
  }
  if (!use_batchnorm) return;
  CheckShiftTable(*bn_weight_shift, n, "bn_weight_shift");
  CheckShiftTable(*bn_right_shift, n, "bn_right_shift");
  signed char* w = table->dptr<signed char>();
  const signed char* ws = bn_weight_shift->dptr<signed char>();
  const signed char* rs = bn_right_shift->dptr<signed char>();
  for (index_t c = 0; c < n; ++c) {
    w[c] = static_cast<signed char>(static_cast<uint8_t>(w[c] + ws[c] - rs[c]));
  }
}

}  // namespace

void BuildWeightShiftTable(const std::vector<NDArray*>& aux, bool vector_quanti, int32_t bn_first,
                           int32_t channels, NDArray* table) {
  const bool use_batchnorm = bn_first != kNoBatchNorm;
  FoldWeightShifts(*aux[1], vector_quanti, use_batchnorm,
                   use_batchnorm ? aux[bn_first + 2] : nullptr,
                   use_batchnorm ? aux[bn_first + 1] : nullptr, channels, table);
  if (use_batchnorm) {
    CHECK(aux[bn_first]->dtype() == kInt32 &&
          aux[bn_first]->Size() == static_cast<index_t>(channels))
        << "bn_weight must hold one entry per output channel";
  }
}

void CheckBias(const NDArray& bias, index_t n, const char* layer) {
  CHECK(bias.dtype() == kInt32 && bias.Size() == n) << "bias does not match the " << layer;
}

std::vector<std::string> MatrixAuxStates(const char* output_shift_name, bool vector_quanti,
                                         bool has_bias, bool use_batchnorm) {
  std::vector<std::string> aux = {output_shift_name};
  aux.push_back(vector_quanti ? "weight_vec_shift_history" : "weight_shift_history");
  if (has_bias) aux.push_back(vector_quanti ? "bias_vec_shift_history" : "bias_shift_history");
  if (use_batchnorm) aux.insert(aux.end(), {"bn_weight", "bn_right_shift", "bn_weight_shift"});
  return aux;
}

std::vector<TShape> MatrixAuxShapes(index_t channels, bool vector_quanti, bool has_bias,
                                    bool use_batchnorm) {
  const TShape per_layer = vector_quanti ? TShape{channels} : TShape{1};
  std::vector<TShape> shapes = {TShape{1}, per_layer};
  if (has_bias) shapes.push_back(per_layer);
  if (use_batchnorm) shapes.insert(shapes.end(), 3, TShape{channels});
  return shapes;
}

void MatrixInferType(std::vector<int>& in_type, std::vector<int>& out_type,
                     std::vector<int>& aux_type, bool has_bias, bool disable_output_quantization,
                     bool use_batchnorm) {
  CHECK_GE(in_type.size(), 1);
  const int dtype = in_type[0];
  CHECK(dtype != -1) << "First input must have specified type";
  for (size_t i = 1; i < in_type.size(); ++i) {
    if (in_type[i] == -1) in_type[i] = (has_bias && i == 2) ? kInt32 : dtype;
  }
  out_type.assign(1, disable_output_quantization ? kFloat32 : dtype);
  const size_t tables = has_bias ? 3 : 2;
  aux_type.assign(tables + (use_batchnorm ? 3 : 0), dtype);
  if (use_batchnorm) aux_type[tables] = kInt32;
}

}  // namespace quanti
}  // namespace ruvo
}  // namespace orvik
