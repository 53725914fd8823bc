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
//   hseg-weights import-caffe MODEL.caffemodel OUT.safetensors [--classes BG,PERSON] [--verbose]
//   hseg-weights check-lib LIBDEEPLAB_DATA.so
//
// Every tensor name, symbol and shape comes from the layer table in
// src/pipeline/net_layers.cpp.
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "caffe_import.h"
#include "caffe_model.h"
#include "elf_symbols.h"
#include "hseg_weights_io.h"
#include "hseg_weights_synth.h"
#include "stdio_file.h"
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
               "  %s table                                 tensor names and shapes as Markdown\n"
               "  %s import-caffe MODEL.caffemodel OUT.safetensors [--classes BG,PERSON] [--verbose]\n"
               "                                               convert the public PSPNet Caffe model,\n"
               "                                               classes 0 and 15 by default\n"
               "  %s check-lib LIB.so                      check a data library's symbols and values\n",
               kProgram, kProgram, kProgram, kProgram, kProgram, kProgram, kProgram, kProgram,
               kProgram);
  return 2;
}

// One line: the program, what it was working on, the problem.
int fail(const std::string &path, const std::string &message) {
  std::fprintf(stderr, "%s: %s: %s\n", kProgram, path.c_str(), message.c_str());
  return 1;
}

// Writes the network's weights file through a temporary name beside `out`,
// renamed over it at the end: `out` is either the whole new file or left as
// it was. `fill` gives tensor i's values; returning false abandons the file
// (it sets `error` itself).
bool write_weights(const std::string &out, const std::function<bool(size_t, float *)> &fill,
                   std::string *error) {
  std::string tmp = out + ".XXXXXX";
  const int fd = mkstemp(&tmp[0]);
  if (fd < 0) {
    *error = "cannot create a file beside " + out + ": " + std::strerror(errno);
    return false;
  }
  const mode_t mask = umask(0);  // mkstemp makes 0600; give the usual mode
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  close(fd);
  bool filled = true;
  bool ok = hseg_weights::write_file(
      tmp, network_shapes(), [&](size_t i, float *dst) { filled = filled && fill(i, dst); }, error);
  ok = ok && filled;
  if (ok && std::rename(tmp.c_str(), out.c_str()) != 0) {
    *error = "cannot rename the finished file to " + out + ": " + std::strerror(errno);
    ok = false;
  }
  if (!ok) std::remove(tmp.c_str());
  return ok;
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
  const auto fill = [&](size_t i, float *dst) {
    synth.fill(static_cast<int>(i), dst);
    return true;
  };
  if (!write_weights(out, fill, &error)) {
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
  hseg_tools::File f(std::fopen(path.c_str(), "wb"));
  if (!f) {
    std::fprintf(stderr, "%s: %s\n", kProgram,
                 hseg_tools::file_message("create", path, errno).c_str());
    return false;
  }
  const int write_error =
      std::fwrite(text.data(), 1, text.size(), f.get()) == text.size() ? 0 : errno;
  const int close_error = hseg_tools::close_file(f);
  if (write_error == 0 && close_error == 0) return true;
  std::fprintf(stderr, "%s: %s\n", kProgram,
               hseg_tools::file_message("write", path, write_error != 0 ? write_error : close_error)
                   .c_str());
  return false;
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
    if (!write_weights(out,
                       [&](size_t i, float *dst) {
                         std::memcpy(dst, data[i], hseg::net_tensor(i).count * 4);
                         return true;
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

// "BG,PERSON": two class numbers.
bool parse_classes(const char *text, hseg_caffe::ImportOptions *o) {
  char *end = nullptr;
  errno = 0;
  o->background = std::strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != ',') return false;
  const char *second = end + 1;
  o->person = std::strtoll(second, &end, 10);
  return errno == 0 && end != second && *end == '\0';
}

// A layer name as printable text.
std::string printable(std::string s) {
  for (char &c : s)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  return s;
}

void print_skipped(const hseg_caffe::Model &model, const hseg_caffe::ImportPlan &plan) {
  for (int i : plan.skipped) {
    const hseg_caffe::Layer &l = model.layers[i];
    std::printf("skipped layer %s (%s, %zu blob%s)\n", printable(l.name).c_str(),
                l.type.empty() ? "no type" : printable(l.type).c_str(), l.blobs.size(),
                l.blobs.size() == 1 ? "" : "s");
  }
  std::printf("%s: class %lld as background, class %lld as person; %lld other classes left out\n",
              hseg_caffe::kClassifierLayer, static_cast<long long>(plan.options.background),
              static_cast<long long>(plan.options.person),
              static_cast<long long>(plan.classes - 2));
}

int cmd_import_caffe(int argc, char **argv) {
  hseg_caffe::ImportOptions options;
  bool verbose = false;
  std::vector<std::string> paths;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--classes" && i + 1 < argc) {
      if (!parse_classes(argv[++i], &options)) return usage();
    } else if (a == "--verbose") {
      verbose = true;
    } else if (!a.empty() && a[0] != '-') {
      paths.push_back(a);
    } else {
      return usage();
    }
  }
  if (paths.size() != 2) return usage();
  const std::string &in = paths[0], &out = paths[1];
  hseg_weights::MappedFile file;
  hseg_caffe::Model model;
  hseg_caffe::ImportPlan plan;
  std::string error;
  if (!file.open(in, &error) || !hseg_caffe::read_model(file.data(), file.size(), &model, &error) ||
      !hseg_caffe::plan_import(file.data(), file.size(), model, options, &plan, &error))
    return fail(in, error);
  if (verbose) print_skipped(model, plan);
  const auto fill = [&](size_t i, float *dst) {
    return hseg_caffe::fill_tensor(file.data(), file.size(), model, plan, static_cast<int>(i), dst,
                                   &error);
  };
  if (!write_weights(out, fill, &error)) return fail(in, error);
  std::printf("%s: %d tensors from %s (%zu of its %zu layers)\n", out.c_str(), kNetTensorCount,
              in.c_str(), model.layers.size() - plan.skipped.size(), model.layers.size());
  return 0;
}

// The first thing wrong with tensor i's symbol in the library's symbol table.
std::string symbol_problem(const std::map<std::string, hseg_weights::ElfSymbol> &symbols, int i) {
  const std::string sym = symbol_of(i);
  const uint64_t want = static_cast<uint64_t>(hseg::net_tensor(i).count) * 4;
  const auto it = symbols.find(sym);
  if (it == symbols.end())
    return "missing symbol " + sym + " (" + file_name_of(i) + ", " + std::to_string(want) + " bytes)";
  const hseg_weights::ElfSymbol &e = it->second;
  if (e.type != STT_OBJECT && e.type != STT_NOTYPE) return "symbol " + sym + " is not a data object";
  if (e.size != want)
    return "symbol " + sym + " holds " + std::to_string(e.size) + " bytes, expected " +
           std::to_string(want) + " (" + file_name_of(i) + ")";
  if (!e.readable) return "symbol " + sym + " lies outside the library's loaded data";
  return "";
}

// Statistics of one layer's arrays; the first problem, if any, in `problem`.
void print_layer(int layer, const float *const *data, std::string *problem) {
  const hseg::NetLayer &l = kNetLayers[layer];
  const int first = hseg::net_first_tensor(layer);
  hseg_weights::ValueStats st[5];
  for (int k = 0; k < hseg::net_tensors_of(l); ++k) {
    st[k].add(data[first + k], static_cast<size_t>(hseg::net_tensor(first + k).count));
    if (!st[k].finite()) {
      *problem = symbol_of(first + k) + ": element " + std::to_string(st[k].first_bad) + " is " +
                 hseg_weights::non_finite_name(st[k].bad) + ", every value must be finite";
      return;
    }
  }
  const hseg_weights::ValueStats &last = st[hseg::net_tensors_of(l) - 1];  // variance or bias
  std::printf("%-24s kernel min %10.4g max %10.4g mean %10.4g   %s %10.4g .. %-10.4g\n", l.name,
              st[0].min, st[0].max, st[0].mean(), hseg::net_has_bias(l) ? "bias    " : "variance",
              last.min, last.max);
  if (!hseg::net_has_bias(l) && last.min <= 0.0f)
    *problem = symbol_of(first + 4) + ": a variance of " + hseg_weights::number_text(last.min) +
               ", every variance must be > 0";
}

int cmd_check_lib(std::string lib) {
  if (lib.find('/') == std::string::npos) lib = "./" + lib;  // a file, not a search
  std::string error;
  std::map<std::string, hseg_weights::ElfSymbol> symbols;
  {
    hseg_weights::MappedFile file;
    if (!file.open(lib, &error) ||
        !hseg_weights::read_dynamic_symbols(file.data(), file.size(), &symbols, &error))
      return fail(lib, error);
  }
  for (int i = 0; i < kNetTensorCount && error.empty(); ++i) error = symbol_problem(symbols, i);
  if (!error.empty()) return fail(lib, error);
  void *handle = dlopen(lib.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return fail(lib, std::string("cannot load it: ") + dlerror());
  link_map *map = nullptr;
  if (dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr) error = "cannot locate it once loaded";
  std::vector<const float *> data(kNetTensorCount);
  for (int i = 0; i < kNetTensorCount && error.empty(); ++i) {
    // Read each array where the symbol table says it is, and make sure that
    // is where the library's own lookup leads.
    data[i] = reinterpret_cast<const float *>(map->l_addr + symbols[symbol_of(i)].value);
    if (dlsym(handle, symbol_of(i).c_str()) != data[i])
      error = "symbol " + symbol_of(i) + " resolves to another definition";
  }
  for (int l = 0; l < hseg::kNetLayerCount && error.empty(); ++l) print_layer(l, data.data(), &error);
  dlclose(handle);
  if (!error.empty()) return fail(lib, error);
  std::printf("%s: %d symbols, %lld bytes, every value finite, every variance > 0: good\n",
              lib.c_str(), kNetTensorCount, static_cast<long long>(hseg::net_weight_bytes()));
  return 0;
}

// Commands by name; `args` is the exact number of arguments, or -1 when the
// command reads its own options.
struct Command {
  const char *name;
  int args;
  int (*run)(int argc, char **argv);
};

const Command kCommands[] = {
    {"generate", -1, cmd_generate},
    {"validate", 1, [](int, char **a) { return cmd_validate(a[0]); }},
    {"list", 1, [](int, char **a) { return cmd_list(a[0]); }},
    {"asm", 2, [](int, char **a) { return cmd_asm(a[0], a[1]); }},
    {"refs", 1, [](int, char **a) { return cmd_refs(a[0]); }},
    {"export", 2, [](int, char **a) { return cmd_export(a[0], a[1]); }},
    {"table", 0, [](int, char **) { return cmd_table(); }},
    {"import-caffe", -1, cmd_import_caffe},
    {"check-lib", 1, [](int, char **a) { return cmd_check_lib(a[0]); }},
};

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage();
  try {
    for (const Command &c : kCommands)
      if (std::strcmp(argv[1], c.name) == 0 && (c.args < 0 || c.args == argc - 2))
        return c.run(argc - 2, argv + 2);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
    return 1;
  }
  return usage();
}
