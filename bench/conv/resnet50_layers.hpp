#pragma once

// The distinct convolution layers of ResNet-50 (torchvision's v1.5: the
// stride of a stage's first block sits on its 3x3; the projections of stages
// 2-4 are 1x1 with stride 2, stage 1's has stride 1) at a square input.
// bench/layer/torch_resnet50.py lists the same layers; the report joins the
// two on key().

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

struct ConvLayer {
  char const* stage;
  char const* role;
  std::size_t C, K, R, stride, pad, H;  // input channels and size, output channels, window
  int uses;                             // how often the network runs this shape

  std::size_t out() const { return (H + 2 * pad - R) / stride + 1; }
  double flop(std::size_t batch) const {
    return 2.0 * double(K * C * R * R) * double(batch * out() * out());
  }
  // "3x3 s2 128>128 56x56": window, stride, channels, input size.
  std::string key() const {
    return std::to_string(R) + "x" + std::to_string(R) + " s" + std::to_string(stride) + " " +
           std::to_string(C) + ">" + std::to_string(K) + " " + std::to_string(H) + "x" +
           std::to_string(H);
  }
};

inline std::vector<ConvLayer> const& resnet50_layers() {
  static std::vector<ConvLayer> const list = {
      {"stem", "7x7 stride 2", 3, 64, 7, 2, 3, 224, 1},
      {"stage 1", "1x1 reduce, block 1", 64, 64, 1, 1, 0, 56, 1},
      {"stage 1", "3x3", 64, 64, 3, 1, 1, 56, 3},
      {"stage 1", "1x1 expand and projection", 64, 256, 1, 1, 0, 56, 4},
      {"stage 1", "1x1 reduce", 256, 64, 1, 1, 0, 56, 2},
      {"stage 2", "1x1 reduce, block 1", 256, 128, 1, 1, 0, 56, 1},
      {"stage 2", "3x3 stride 2", 128, 128, 3, 2, 1, 56, 1},
      {"stage 2", "1x1 projection stride 2", 256, 512, 1, 2, 0, 56, 1},
      {"stage 2", "1x1 expand", 128, 512, 1, 1, 0, 28, 4},
      {"stage 2", "1x1 reduce", 512, 128, 1, 1, 0, 28, 3},
      {"stage 2", "3x3", 128, 128, 3, 1, 1, 28, 3},
      {"stage 3", "1x1 reduce, block 1", 512, 256, 1, 1, 0, 28, 1},
      {"stage 3", "3x3 stride 2", 256, 256, 3, 2, 1, 28, 1},
      {"stage 3", "1x1 projection stride 2", 512, 1024, 1, 2, 0, 28, 1},
      {"stage 3", "1x1 expand", 256, 1024, 1, 1, 0, 14, 6},
      {"stage 3", "1x1 reduce", 1024, 256, 1, 1, 0, 14, 5},
      {"stage 3", "3x3", 256, 256, 3, 1, 1, 14, 5},
      {"stage 4", "1x1 reduce, block 1", 1024, 512, 1, 1, 0, 14, 1},
      {"stage 4", "3x3 stride 2", 512, 512, 3, 2, 1, 14, 1},
      {"stage 4", "1x1 projection stride 2", 1024, 2048, 1, 2, 0, 14, 1},
      {"stage 4", "1x1 expand", 512, 2048, 1, 1, 0, 7, 3},
      {"stage 4", "1x1 reduce", 2048, 512, 1, 1, 0, 7, 2},
      {"stage 4", "3x3", 512, 512, 3, 1, 1, 7, 2},
  };
  return list;
}

// The first layer of examples/conv_layer.cpp, also timed in double.
inline ConvLayer const kExampleLayer = {"example", "layer 1", 64, 64, 3, 1, 1, 56, 1};

}  // namespace bench
