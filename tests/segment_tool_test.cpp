// hseg-segment as a person uses it: messages and exit statuses for bad
// input, outputs that fail to be written, and a two-frame raw YUY2 file
// segmented end to end.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

// Files of this run, apart from those of other runs of the suite.
std::string path(const std::string &name) {
  return ::testing::TempDir() + "hseg_segment_tool_" + std::to_string(getpid()) + "_" + name;
}

void write_file(const std::string &name, const std::vector<uint8_t> &bytes) {
  std::ofstream f(path(name), std::ios::binary);
  f.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::string read_file(const std::string &full) {
  std::ifstream f(full, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

struct ToolRun {
  int status = -1;
  std::string out, err;
};

// Runs the tool with `args` (already shell-quoted where needed), after the
// shell commands `before` (a ulimit, say).
ToolRun run_tool(const std::string &args, const std::string &before = "") {
  const std::string out = path("stdout.txt"), err = path("stderr.txt");
  const std::string cmd = before + "exec '" + HSEG_SEGMENT_TOOL + "' " + args + " >'" + out +
                          "' 2>'" + err + "' </dev/null";
  ToolRun r;
  const int raw = std::system(cmd.c_str());
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = read_file(out);
  r.err = read_file(err);
  return r;
}

// The names in directory `dir`, dot files included.
std::vector<std::string> entries(const std::string &dir) {
  std::vector<std::string> names;
  DIR *d = opendir(dir.c_str());
  while (dirent *e = d != nullptr ? readdir(d) : nullptr)
    if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
  if (d != nullptr) closedir(d);
  return names;
}

TEST(SegmentTool, BadInputGivesAMessageAndAnExitStatus) {
  write_file("text.png", {'h', 'e', 'l', 'l', 'o', '\n'});
  // A PNG cut to 20 bytes, inside its header chunk.
  write_file("cut.png", {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n', 0, 0, 0, 13, 'I', 'H', 'D', 'R', 0, 0, 0, 64});
  write_file("odd.yuy2", std::vector<uint8_t>(1000, 128));  // 16x16 frames are 512 bytes
  write_file("empty.nv21", {});
  write_file("one.yuy2", std::vector<uint8_t>(2 * 64 * 48, 128));
  mkdir(path("dir").c_str(), 0777);
  const std::string text = "'" + path("text.png") + "'", dir = "'" + path("dir") + "'";
  struct Case {
    const char *what;
    std::string args;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {"no input", "", 2, "no input file"},
      {"two inputs", text + " " + text, 2, "more than one input"},
      {"unknown option", "--bogus " + text, 2, "unknown option '--bogus'"},
      {"option without value", text + " --mask-size", 2, "needs a value"},
      {"zero mask size", "--mask-size 0x5 " + text, 2, "bad --mask-size '0x5'"},
      {"mask size without height", "--mask-size=12 " + text, 2, "bad --mask-size '12'"},
      {"mask size too large", "--mask-size 70000x2 " + text, 2, "bad --mask-size"},
      {"unknown raw format", "--raw rgb --size 4x4 " + text, 2, "unsupported raw format 'rgb'"},
      {"raw without size", "--raw yuy2 " + text, 2, "--raw needs --size"},
      {"size without raw", "--size 4x4 " + text, 2, "--size is for raw input"},
      {"odd yuy2 width", "--raw yuy2 --size 5x4 " + text, 2, "even width"},
      {"flag with a value", "--time=1 " + text, 2, "takes no value"},
      {"missing file", "'" + path("nothing-here.png") + "'", 1, "cannot open"},
      {"unsupported format", text, 1, "unsupported format"},
      {"PNG cut to 20 bytes", "'" + path("cut.png") + "'", 1, "cannot decode '" + path("cut.png") + "': the file is truncated"},
      {"raw size not whole frames", "--raw yuy2 --size 16x16 '" + path("odd.yuy2") + "'", 1,
       "(1000 bytes) is not a whole number of 16x16 yuy2 frames (512 bytes each)"},
      {"empty raw file", "--raw nv21 --size 4x4 '" + path("empty.nv21") + "'", 1,
       "not a whole number"},
      {"directory as raw input", "--raw nv21 --size 4x4 " + dir, 1, "': Is a directory"},
      {"directory as picture", dir, 1, "cannot read '" + path("dir") + "': Is a directory"},
      {"mask beyond the output limit",
       "--mask-size 65535x65535 -o '" + path("m.gray") + "' --raw yuy2 --size 64x48 '" +
           path("one.yuy2") + "'",
       2, "the mask would be 65535x65535, 4294836225 pixels: an output may have at most 67108864"},
      {"raw cut-out beyond the output limit",
       "--raw nv21 --size 8200x8200 --mask-size 8x8 --cutout c.png '" + path("one.yuy2") + "'", 2,
       "the cut-out would be 8200x8200"},
  };
  for (const Case &c : cases) {
    const ToolRun r = run_tool(c.args);
    EXPECT_EQ(r.status, c.status) << c.what << "\n" << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.what << ": got\n" << r.err;
    EXPECT_EQ(r.err.rfind("hseg-segment: ", 0), 0u) << c.what;
  }
  EXPECT_NE(access(path("m.gray").c_str(), F_OK), 0);  // refused before it was created
  rmdir(path("dir").c_str());
}

// A write that fails exits 1 naming the file and the reason, and no output
// of the run, nor any temporary, is left: a raw mask stream to a full
// device; a cut-out to it (the mask written before it goes too); a picture's
// outputs past a 1 KiB file-size limit; the overlay of the second of two
// frames.
TEST(SegmentTool, FailedWritesExitOneAndLeaveNoOutputs) {
  write_file("one.yuy2", std::vector<uint8_t>(2 * 64 * 48, 128));
  write_file("two.yuy2", std::vector<uint8_t>(2 * 2 * 64 * 48, 128));
  const std::string out = path("out"), picture = "'" HSEG_EXAMPLES_DIR "/astronaut.png'";
  mkdir(out.c_str(), 0777);
  struct Case {
    const char *what, *before;
    std::string args;
    const char *message;
  };
  const Case cases[] = {
      {"raw mask to a full device", "", "--raw yuy2 --size 64x48 -o /dev/full '" + path("one.yuy2") + "'",
       "cannot write '/dev/full': No space left on device"},
      {"cut-out to a full device", "", picture + " -o '" + out + "/m.png' --cutout /dev/full",
       "cannot write '/dev/full': No space left on device"},
      {"overlay past the file-size limit", "ulimit -f 2; ",
       picture + " -o '" + out + "/m.png' --overlay '" + out + "/ov.png'", "': File too large"},
  };
  for (const Case &c : cases) {
    const ToolRun r = run_tool(c.args, c.before);
    EXPECT_EQ(r.status, 1) << c.what << "\n" << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.what << ": got\n" << r.err;
    EXPECT_EQ(entries(out), std::vector<std::string>()) << c.what;
  }
  mkdir((out + "/ov-000001.png").c_str(), 0777);  // the second frame's overlay cannot be made
  const ToolRun r = run_tool("--raw yuy2 --size 64x48 -o '" + out + "/m.gray' --overlay '" + out +
                             "/ov.png' '" + path("two.yuy2") + "'");
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("ov-000001.png': Is a directory"), std::string::npos) << r.err;
  EXPECT_EQ(entries(out), std::vector<std::string>{"ov-000001.png"});
  rmdir((out + "/ov-000001.png").c_str());
  rmdir(out.c_str());
}

TEST(SegmentTool, HelpDocumentsEveryOption) {
  const ToolRun r = run_tool("--help");
  EXPECT_EQ(r.status, 0);
  for (const char *word : {"--mask", "--cutout", "--overlay", "--mask-size", "--raw", "--size",
                           "--time", "yuy2", "i420", "nv21", "exit status"})
    EXPECT_NE(r.out.find(word), std::string::npos) << word;
}

TEST(SegmentTool, TwoFrameRawYuy2GivesTwoMasks) {
  // Two grey 64x48 frames; the tool enlarges them to 473x473 before
  // segmentation and says so.
  const int w = 64, h = 48;
  write_file("two.yuy2", std::vector<uint8_t>(size_t{2} * 2 * w * h, 128));
  const ToolRun r = run_tool("--raw yuy2 --size 64x48 --time -o '" + path("two.gray") +
                         "' --overlay '" + path("ov.png") + "' '" + path("two.yuy2") + "'");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("enlarging"), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("mean of 2 frames"), std::string::npos) << r.out;
  for (const char *stage : {"resize", "network", "crf", "final resize", "total"})
    EXPECT_NE(r.out.find(stage), std::string::npos) << stage;

  const std::string masks = read_file(path("two.gray"));
  ASSERT_EQ(masks.size(), size_t{2} * w * h);
  EXPECT_TRUE(std::all_of(masks.begin(), masks.end(),
                          [](char c) { return c == 0 || static_cast<uint8_t>(c) == 255; }));
  for (const char *name : {"ov-000000.png", "ov-000001.png"}) {
    const std::string png = read_file(path(name));
    EXPECT_GT(png.size(), 8u) << name;
    EXPECT_EQ(png.compare(0, 4, "\x89PNG"), 0) << name;
  }
}

}  // namespace
