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
#include "ruvo/src/layer/alphaplusconvolution.h"
#include "ruvo/src/layer/alphapooling.h"
#include "ruvo/src/layer/batchnorm.h"
#include "ruvo/src/layer/concat.h"
#include "ruvo/src/layer/convolution.h"
#include "ruvo/src/layer/dropout.h"
#include "ruvo/src/layer/elementwise.h"
#include "ruvo/src/layer/flatten.h"
#include "ruvo/src/layer/fullyconnected.h"
#include "ruvo/src/layer/pooling.h"
#include "ruvo/src/layer/quanti_layers.h"
#include "ruvo/src/layer/quantifullyconnected.h"
#include "ruvo/src/layer/quantitemporalconvolution.h"
#include "ruvo/src/layer/reshape.h"
#include "ruvo/src/layer/rnn.h"
#include "ruvo/src/layer/slice.h"
#include "ruvo/src/layer/slice_axis.h"
#include "ruvo/src/layer/softmaxactivation.h"
#include "ruvo/src/layer/softmaxoutput.h"
#include "ruvo/src/layer/upsampling.h"

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
    {"Pooling",                   Pooling_layer_creator},  // 3  Pooling
    {"SoftmaxActivation",         SoftmaxActivation_layer_creator},  // 4  SoftmaxActivation
    {"Concat",                    Concat_layer_creator},  // 5  Concat
    {"_Plus",                     ElementWiseBinary_Plus_layer_creator},  // 6  ElementWiseBinary_Plus
    {"elemwise_add",              ElementWiseBinary_Plus_layer_creator},  // 7  ElementWiseBinary_Plus
    {"Convolution",               Convolution_layer_creator},  // 8  Convolution
    {"Flatten",                   Flatten_layer_creator},  // 9  Flatten
    {"BatchNorm",                 BatchNorm_layer_creator},  // 10 BatchNorm
    {"QuantiInput",               QuantiInput_layer_creator},  // 11 QuantiInput
    {"AlphaPooling",              AlphaPooling_layer_creator},  // 12 AlphaPooling
    {"QuantiFlatten",             QuantiFlatten_layer_creator},  // 13 QuantiFlatten
    {"QuantiActivation",          QuantiActivation_layer_creator},  // 14 QuantiActivation
    {"NHCW2Conv",                 NHCW2Conv_layer_creator},  // 15 NHCW2Conv
    {"AlphaConvolution",          AlphaConvolution_layer_creator},  // 16 AlphaConvolution
    {"AlphaUpscale",              AlphaUpscale_layer_creator},  // 17 AlphaUpscale
    {"QuantiFullyConnected",      QuantiFullyConnected_layer_creator},  // 18 QuantiFullyConnected
    {"SoftmaxOutput",             SoftmaxOutput_layer_creator},  // 19 SoftmaxOutput
    {"Reshape",                   Reshape_layer_creator},  // 20 Reshape
    {"slice_axis",                slice_axis_layer_creator},  // 21 slice_axis
    {"_mul_scalar",               ElementWiseBinaryScalar_Mul_Scalar_layer_creator},  // 22 ElementWiseBinaryScalar_Mul_Scalar
    {"_MulScalar",                ElementWiseBinaryScalar_Mul_Scalar_layer_creator},  // 23 ElementWiseBinaryScalar_Mul_Scalar
    {"_plus_scalar",              ElementWiseBinaryScalar_Plus_Scalar_layer_creator},  // 24 ElementWiseBinaryScalar_Plus_Scalar
    {"_PlusScalar",               ElementWiseBinaryScalar_Plus_Scalar_layer_creator},  // 25 ElementWiseBinaryScalar_Plus_Scalar
    {"add_n",                     ElementWiseSum_layer_creator},  // 26 ElementWiseSum
    {"ElementWiseSum",            ElementWiseSum_layer_creator},  // 27 ElementWiseSum
    {"broadcast_mul",             ElementWiseBinaryBroadcastbroadcast_mul_layer_creator},  // 28 ElementWiseBinaryBroadcastbroadcast_mul
    {"RNN",                       Rnn_layer_creator},  // 29 Rnn
    {"Dropout",                   Dropout_layer_creator},  // 30 Dropout
    {"sum",                       BroadcastReduce_Sum_layer_creator},  // 31 BroadcastReduce_Sum
    {"AlphaPlusConvolution",      AlphaPlusConvolution_layer_creator},  // 32 AlphaPlusConvolution
    {"UpSampling",                UpSampling_layer_creator},  // 33 UpSampling
    {"QuantiTemporalConvolution", QuantiTemporalConvolution_layer_creator},  // 34 QuantiTemporalConvolution
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
