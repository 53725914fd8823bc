// hseg-weights: makes, checks and converts the weights of the segmentation
// network.
//
//   hseg-weights generate [--seed N] OUT.safetensors
//   hseg-weights validate FILE.safetensors
//   hseg-weights list FILE.safetensors
//   hseg-weights asm FILE.safetensors OUT.s
//   hseg-weights refs OUT.s
//   hseg-weights export LIBDEEPLAB_DATA.so OUT.safetensors
//   hseg-weights table
//
// Every tensor name, symbol and shape comes from the layer table in
// src/pipeline/net_layers.cpp.
#include <dlfcn.h>
#include <link.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hseg_weights_io.h"
#include "hseg_weights_synth.h"
#include "pipeline/net_layers.h"

namespace {

using hseg::kNetLayers;
using hseg::kNetTensorCount;
using hseg::NetTensor;

const char kProgram[] = "hseg-weights";

std::string symbol_of(int index) {
  char buf[96];
  hseg::net_tensor_symbol(index, buf, sizeof buf);
  return buf;
}

std::string file_name_of(int index) {
  char buf[96];
  hseg::net_tensor_file_name(index, buf, sizeof buf);
  return buf;
}

std::vector<hseg_weights::TensorShape> network_shapes() {
  std::vector<hseg_weights::TensorShape> shapes;
  for (int i = 0; i < kNetTensorCount; ++i) {
    const NetTensor t = hseg::net_tensor(i);
    shapes.push_back({file_name_of(i), std::vector<int64_t>(t.shape, t.shape + t.rank)});
  }
  return shapes;
}

int usage() {
  std::fprintf(stderr,
               "usage:\n"
               "  %s generate [--seed N] OUT.safetensors   write the synthetic weights\n"
               "  %s validate FILE.safetensors             check a weights file\n"
               "  %s list FILE.safetensors                 list a file's tensors\n"
               "  %s asm FILE.safetensors OUT.s            assembly for libdeeplab_data.so\n"
               "  %s refs OUT.s                            the network's table of weight symbols\n"
               "  %s export LIB.so OUT.safetensors         weights of a built library, back to a file\n"
               "  %s table                                 tensor names and shapes as Markdown\n",
               kProgram, kProgram, kProgram, kProgram, kProgram, kProgram, kProgram);
  return 2;
}

// Prints every problem and returns whether there was none.
bool report(const std::string &path, const std::vector<std::string> &errors) {
  const size_t kShown = 25;
  for (size_t i = 0; i < errors.size() && i < kShown; ++i)
    std::fprintf(stderr, "%s: %s: %s\n", kProgram, path.c_str(), errors[i].c_str());
  if (errors.size() > kShown)
    std::fprintf(stderr, "%s: %s: ... and %zu more problems\n", kProgram, path.c_str(),
                 errors.size() - kShown);
  return errors.empty();
}

int cmd_generate(int argc, char **argv) {
  uint64_t seed = hseg_weights::kDefaultSeed;
  std::string out;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--seed" && i + 1 < argc) {
      char *end = nullptr;
      errno = 0;
      seed = std::strtoull(argv[++i], &end, 0);
      if (errno != 0 || end == argv[i] || *end != '\0') return usage();
    } else if (out.empty() && !a.empty() && a[0] != '-') {
      out = a;
    } else {
      return usage();
    }
  }
  if (out.empty()) return usage();
  const hseg_weights::SyntheticWeights synth(seed);
  if (!synth.ok()) {
    std::fprintf(stderr, "%s: the calibration pass failed with status %u\n", kProgram,
                 synth.status());
    return 1;
  }
  std::string error;
  if (!hseg_weights::write_file(out, network_shapes(),
                                [&](size_t i, float *dst) { synth.fill(static_cast<int>(i), dst); },
                                &error)) {
    std::fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
    return 1;
  }
  return 0;
}

int cmd_validate(const std::string &path) {
  hseg_weights::FileLayout layout;
  if (!report(path, hseg_weights::validate(path, network_shapes(), &layout))) return 1;
  std::printf("%s: %d tensors, %lld bytes of weights: good\n", path.c_str(), kNetTensorCount,
              static_cast<long long>(hseg::net_weight_bytes()));
  return 0;
}

int cmd_list(const std::string &path) {
  hseg_weights::FileLayout layout;
  std::vector<std::string> errors;
  if (!hseg_weights::read_layout(path, &layout, &errors)) {
    report(path, errors);
    return 1;
  }
  std::vector<std::string> symbols(layout.tensors.size(), "-");
  for (int i = 0; i < kNetTensorCount; ++i) {
    const std::string name = file_name_of(i);
    for (size_t k = 0; k < layout.tensors.size(); ++k)
      if (layout.tensors[k].name == name) symbols[k] = symbol_of(i);
  }
  for (size_t k = 0; k < layout.tensors.size(); ++k) {
    const hseg_weights::TensorEntry &t = layout.tensors[k];
    std::printf("%-40s %-4s %-22s %12llu  %s\n", t.name.c_str(), t.dtype.c_str(),
                hseg_weights::shape_text(t.shape).c_str(),
                static_cast<unsigned long long>(t.end - t.begin), symbols[k].c_str());
  }
  return 0;
}

// A path as an assembler string literal.
std::string asm_string(const std::string &s) {
  std::string q = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') q += '\\';
    q += c;
  }
  return q + "\"";
}

bool write_text(const std::string &path, const std::string &text) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) {
    std::fprintf(stderr, "%s: cannot create %s: %s\n", kProgram, path.c_str(), std::strerror(errno));
    return false;
  }
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  if (std::fclose(f) != 0 || !ok) {
    std::fprintf(stderr, "%s: cannot write %s\n", kProgram, path.c_str());
    return false;
  }
  return true;
}

// One read-only data symbol per tensor, each a slice of the weights file.
int cmd_asm(const std::string &path, const std::string &out) {
  hseg_weights::FileLayout layout;
  if (!report(path, hseg_weights::validate(path, network_shapes(), &layout))) return 1;
  std::string s = "# Weights of the segmentation network, sliced from the weights file by " +
                  std::string(kProgram) + ".\n";
  s += "\t.section .note.GNU-stack,\"\",@progbits\n";
  s += "\t.section .rodata.hseg_weights,\"a\",@progbits\n";
  for (int i = 0; i < kNetTensorCount; ++i) {
    const std::string name = file_name_of(i), sym = symbol_of(i);
    const hseg_weights::TensorEntry *e = nullptr;
    for (const auto &t : layout.tensors)
      if (t.name == name) e = &t;
    const unsigned long long bytes = e->end - e->begin, offset = layout.data_start + e->begin;
    s += "\n\t.globl " + sym + "\n\t.type " + sym + ", @object\n\t.size " + sym + ", " +
         std::to_string(bytes) + "\n\t.balign 64\n" + sym + ":\n\t.incbin " + asm_string(path) +
         ", " + std::to_string(offset) + ", " + std::to_string(bytes) + "\n";
  }
  return write_text(out, s) ? 0 : 1;
}

// The table of weight addresses the forward pass indexes by tensor number:
// a reference to every symbol, in the fixed tensor order.
int cmd_refs(const std::string &out) {
  std::string s = "# Addresses of the network's weight symbols in tensor order, written by " +
                  std::string(kProgram) + ".\n";
  s += "\t.section .note.GNU-stack,\"\",@progbits\n";
  s += "\t.section .data.rel.ro.hseg_net_weights,\"aw\",@progbits\n";
  s += "\t.balign 8\n\t.globl hseg_net_weights\n\t.hidden hseg_net_weights\n";
  s += "\t.type hseg_net_weights, @object\n\t.size hseg_net_weights, " +
       std::to_string(8 * kNetTensorCount) + "\nhseg_net_weights:\n";
  for (int i = 0; i < kNetTensorCount; ++i) s += "\t.quad " + symbol_of(i) + "\n";
  return write_text(out, s) ? 0 : 1;
}

int cmd_export(std::string lib, const std::string &out) {
  if (lib.find('/') == std::string::npos) lib = "./" + lib;  // a file, not a search
  void *handle = dlopen(lib.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::fprintf(stderr, "%s: cannot load %s: %s\n", kProgram, lib.c_str(), dlerror());
    return 1;
  }
  std::vector<const float *> data(kNetTensorCount);
  int missing = 0;  // symbols absent or of the wrong size
  for (int i = 0; i < kNetTensorCount; ++i) {
    const std::string sym = symbol_of(i);
    data[i] = static_cast<const float *>(dlsym(handle, sym.c_str()));
    if (data[i] == nullptr) {
      std::fprintf(stderr, "%s: %s: missing symbol %s\n", kProgram, lib.c_str(), sym.c_str());
      ++missing;
      continue;
    }
    // The symbol's recorded size, where the library has one, must match.
    Dl_info info;
    void *extra = nullptr;
    const uint64_t want = static_cast<uint64_t>(hseg::net_tensor(i).count) * 4;
    const bool found = dladdr1(data[i], &info, &extra, RTLD_DL_SYMENT) != 0;
    const auto *entry = static_cast<const ElfW(Sym) *>(extra);
    if (found &&
        entry != nullptr && entry->st_size != 0 && entry->st_size != want) {
      std::fprintf(stderr, "%s: %s: symbol %s holds %llu bytes, expected %llu\n", kProgram,
                   lib.c_str(), sym.c_str(), static_cast<unsigned long long>(entry->st_size),
                   static_cast<unsigned long long>(want));
      ++missing;
    }
  }
  int status = 0;
  if (missing == 0) {
    std::string error;
    if (!hseg_weights::write_file(out, network_shapes(),
                                  [&](size_t i, float *dst) {
                                    std::memcpy(dst, data[i], hseg::net_tensor(i).count * 4);
                                  },
                                  &error)) {
      std::fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
      status = 1;
    }
  } else {
    status = 1;
  }
  dlclose(handle);
  return status;
}

int cmd_table() {
  std::printf("| # | tensor in the weights file | symbol in libdeeplab_data.so | shape | bytes |\n");
  std::printf("|---|---|---|---|---|\n");
  for (int i = 0; i < kNetTensorCount; ++i) {
    const NetTensor t = hseg::net_tensor(i);
    std::printf("| %d | `%s` | `%s` | %s | %lld |\n", i, file_name_of(i).c_str(),
                symbol_of(i).c_str(),
                hseg_weights::shape_text(std::vector<int64_t>(t.shape, t.shape + t.rank)).c_str(),
                static_cast<long long>(t.count * 4));
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage();
  const std::string cmd = argv[1];
  try {
    if (cmd == "generate") return cmd_generate(argc - 2, argv + 2);
    if (cmd == "validate" && argc == 3) return cmd_validate(argv[2]);
    if (cmd == "list" && argc == 3) return cmd_list(argv[2]);
    if (cmd == "asm" && argc == 4) return cmd_asm(argv[2], argv[3]);
    if (cmd == "refs" && argc == 3) return cmd_refs(argv[2]);
    if (cmd == "export" && argc == 4) return cmd_export(argv[2], argv[3]);
    if (cmd == "table" && argc == 2) return cmd_table();
  } catch (const std::exception &e) {
    std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
    return 1;
  }
  return usage();
}
