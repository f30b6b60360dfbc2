// The one table from operator names to layer classes, in index order.
//
// A null creator means the operator is not built into this library:
// create_layer then logs " not enabled" and the net reports the operator as
// unsupported.  To enable a layer, declare its <Class>_layer_creator below
// and put it into its rows.

#include <cstring>

#include "orviklog/src/logging.h"
#include "ruvo/layer.h"
#include "ruvo/src/layer/activation.h"
#include "ruvo/src/layer/alphaconvolution.h"
#include "ruvo/src/layer/concat.h"
#include "ruvo/src/layer/convolution.h"
#include "ruvo/src/layer/flatten.h"
#include "ruvo/src/layer/fullyconnected.h"
#include "ruvo/src/layer/quanti_layers.h"
#include "ruvo/src/layer/reshape.h"
#include "ruvo/src/layer/slice.h"
#include "ruvo/src/layer/slice_axis.h"
#include "ruvo/src/layer/softmaxactivation.h"
#include "ruvo/src/layer/softmaxoutput.h"

namespace orvik {
namespace ruvo {

namespace {

typedef Layer* (*LayerCreatorFunc)();

struct LayerRegistryEntry {
  const char* name;
  LayerCreatorFunc creator;
};

// clang-format off
const LayerRegistryEntry layer_registry[] = {
    {"Input",                     Input_layer_creator},  // 0  Input
    {"FullyConnected",            FullyConnected_layer_creator},  // 1  FullyConnected
    {"Activation",                Activation_layer_creator},  // 2  Activation
    {"Pooling",                   nullptr},  // 3  Pooling
    {"SoftmaxActivation",         SoftmaxActivation_layer_creator},  // 4  SoftmaxActivation
    {"Concat",                    Concat_layer_creator},  // 5  Concat
    {"_Plus",                     nullptr},  // 6  ElementWiseBinary_Plus
    {"elemwise_add",              nullptr},  // 7  ElementWiseBinary_Plus
    {"Convolution",               Convolution_layer_creator},  // 8  Convolution
    {"Flatten",                   Flatten_layer_creator},  // 9  Flatten
    {"BatchNorm",                 nullptr},  // 10 BatchNorm
    {"QuantiInput",               QuantiInput_layer_creator},  // 11 QuantiInput
    {"AlphaPooling",              nullptr},  // 12 AlphaPooling
    {"QuantiFlatten",             QuantiFlatten_layer_creator},  // 13 QuantiFlatten
    {"QuantiActivation",          QuantiActivation_layer_creator},  // 14 QuantiActivation
    {"NHCW2Conv",                 NHCW2Conv_layer_creator},  // 15 NHCW2Conv
    {"AlphaConvolution",          AlphaConvolution_layer_creator},  // 16 AlphaConvolution
    {"AlphaUpscale",              nullptr},  // 17 AlphaUpscale
    {"QuantiFullyConnected",      nullptr},  // 18 QuantiFullyConnected
    {"SoftmaxOutput",             SoftmaxOutput_layer_creator},  // 19 SoftmaxOutput
    {"Reshape",                   Reshape_layer_creator},  // 20 Reshape
    {"slice_axis",                slice_axis_layer_creator},  // 21 slice_axis
    {"_mul_scalar",               nullptr},  // 22 ElementWiseBinaryScalar_Mul_Scalar
    {"_MulScalar",                nullptr},  // 23 ElementWiseBinaryScalar_Mul_Scalar
    {"_plus_scalar",              nullptr},  // 24 ElementWiseBinaryScalar_Plus_Scalar
    {"_PlusScalar",               nullptr},  // 25 ElementWiseBinaryScalar_Plus_Scalar
    {"add_n",                     nullptr},  // 26 ElementWiseSum
    {"ElementWiseSum",            nullptr},  // 27 ElementWiseSum
    {"broadcast_mul",             nullptr},  // 28 ElementWiseBinaryBroadcastbroadcast_mul
    {"RNN",                       nullptr},  // 29 Rnn
    {"Dropout",                   nullptr},  // 30 Dropout
    {"sum",                       nullptr},  // 31 BroadcastReduce_Sum
    {"AlphaPlusConvolution",      nullptr},  // 32 AlphaPlusConvolution
    {"UpSampling",                nullptr},  // 33 UpSampling
    {"QuantiTemporalConvolution", nullptr},  // 34 QuantiTemporalConvolution
    {"slice",                     slice_layer_creator},  // 35 slice
};
// clang-format on

constexpr int kLayerRegistrySize = sizeof(layer_registry) / sizeof(layer_registry[0]);
static_assert(kLayerRegistrySize == 36, "the operator indices are fixed");

}  // namespace

int layer_to_index(const char* name) {
  for (int i = 0; i < kLayerRegistrySize; ++i) {
    if (std::strcmp(layer_registry[i].name, name) == 0) return i;
  }
  RTC_LOG(LS_WARNING) << "layer " << name << " not exists";
  return -1;
}

Layer* create_layer(int index) {
  // Compared as unsigned, so a negative index is out of range too.
  if (static_cast<unsigned>(index) >= static_cast<unsigned>(kLayerRegistrySize)) {
    RTC_LOG(LS_WARNING) << "layer index " << index << " not exists";
    return nullptr;
  }
  LayerCreatorFunc creator = layer_registry[index].creator;
  if (creator == nullptr) {
    RTC_LOG(LS_WARNING) << "layer index " << index << " not enabled";
    return nullptr;
  }
  return creator();
}

}  // namespace ruvo
}  // namespace orvik
