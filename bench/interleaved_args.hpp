#pragma once

// Command-line defaults for benchmarks that compare a routine with a baseline
// on a shared machine, where throughput drifts over seconds: the repetitions
// of all benchmarks run in random order, so a case and its baseline are
// sampled over the same minutes. Flags given on the command line come later
// and win.
#include <vector>

namespace bench {

class InterleavedArgs {
 public:
  InterleavedArgs(int argc, char** argv) : args_(argv, argv + argc) {
    args_.insert(args_.begin() + (argc > 0 ? 1 : 0), kFlag);
    args_.push_back(nullptr);
    count_ = static_cast<int>(args_.size()) - 1;
  }
  int* argc() { return &count_; }
  char** argv() { return args_.data(); }

 private:
  static inline char kFlag[] = "--benchmark_enable_random_interleaving=true";
  std::vector<char*> args_;
  int count_ = 0;
};

}  // namespace bench
