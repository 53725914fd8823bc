// hseg-segment as a person uses it: messages and exit statuses for bad
// input, outputs that fail to be written, and raw YUY2 frames segmented end
// to end with their background blurred or replaced, from a file and through
// pipes; and the example program, which must give the tool's frames.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "support/tool_run.h"

namespace {

using hseg_test::read_text;
using hseg_test::RunResult;
using hseg_test::temp_path;

// The temporary file `name`, quoted for the shell.
std::string q(const std::string &name) { return hseg_test::shell_quoted(temp_path(name)); }

// Writes the temporary file `name`; returns its quoted path.
std::string put(const std::string &name, const std::string &bytes) {
  hseg_test::write_text(temp_path(name), bytes);
  return q(name);
}

// Runs the tool with `args` (quoted where needed) after the shell commands
// `before` (a ulimit, say).
RunResult run_tool(const std::string &args, const std::string &before = "") {
  return hseg_test::run(before + "exec '" HSEG_SEGMENT_TOOL "' " + args);
}

// Runs the tool between two pipes: the file `input` fed to its standard
// input, its standard output read from the other end.
RunResult run_piped(const std::string &input, const std::string &args) {
  const std::string status = temp_path("status.txt");
  RunResult r = hseg_test::run("{ cat " + input + " | { '" HSEG_SEGMENT_TOOL "' " + args + "; echo $? >'" +
                               status + "'; } | cat; }");
  r.status = std::atoi(read_text(status).c_str());
  return r;
}

// The names in directory `dir`, dot files included, one a line.
std::string entries(const std::string &dir) { return hseg_test::run("ls -A '" + dir + "'").out; }

TEST(SegmentTool, BadInputGivesAMessageAndAnExitStatus) {
  const std::string text = put("text.png", "hello\n"), one = put("one.yuy2", std::string(2 * 64 * 48, '\x80'));
  // A PNG cut to 20 bytes, inside its header chunk.
  const std::string cut = put("cut.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\0\x40", 20));
  const std::string missing = q("nothing-here.png"), dir = q("dir");
  mkdir(temp_path("dir").c_str(), 0777);
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
      {"missing file", missing, 1, "cannot open"},
      {"unsupported format", text, 1, "unsupported format"},
      {"PNG cut to 20 bytes", cut, 1, "cannot decode '" + temp_path("cut.png") + "': the file is truncated"},
      {"raw size not whole frames", "--raw yuy2 --size 16x16 " + put("odd.yuy2", std::string(1000, '\x80')), 1,
       "odd.yuy2' ends 488 bytes into frame 1, after 1 whole frame: a 16x16 yuy2 frame has 512 bytes"},
      {"empty raw file", "--raw nv21 --size 4x4 " + put("empty.nv21", ""), 1, "empty.nv21' holds no frames"},
      {"directory as raw input", "--raw nv21 --size 4x4 " + dir, 1, "': Is a directory"},
      {"directory as picture", dir, 1, "cannot read '" + temp_path("dir") + "': Is a directory"},
      {"mask beyond the output limit", "--mask-size 65535x65535 -o " + q("m.gray") + " --raw yuy2 --size 64x48 " + one,
       2, "the mask would be 65535x65535, 4294836225 pixels: an output may have at most 67108864"},
      {"raw cut-out beyond the output limit", "--raw nv21 --size 8200x8200 --mask-size 8x8 --cutout c.png " + one,
       2, "the cut-out would be 8200x8200"},
      {"blur of sigma 0", "--blur-background 0 --output o.png " + text, 2, "bad --blur-background '0'"},
      {"effect without --output", "--blur-background 4 " + text, 2, "needs --output FILE"},
      {"--output without an effect", "--output o.png " + text, 2, "--output needs"},
      {"two effects", "--blur-background 4 --replace-background " + text + " --output o.png " + text, 2,
       "not both"},
      {"standard input as a picture", "-", 2, "give --raw FORMAT and --size"},
      {"two outputs to standard output", "--raw nv21 --size 4x4 -o - --blur-background 2 --output - -", 2,
       "only one output can go to standard output"},
      {"missing background picture",
       "--raw yuy2 --size 64x48 --replace-background " + missing + " --output o.yuy2 " + one, 1,
       "cannot open '" + temp_path("nothing-here.png") + "'"},
  };
  for (const Case &c : cases) {
    const RunResult r = run_tool(c.args);
    EXPECT_EQ(r.status, c.status) << c.what << "\n" << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.what << ": got\n" << r.err;
    EXPECT_EQ(r.err.rfind("hseg-segment: ", 0), 0u) << c.what;
  }
  EXPECT_NE(access(temp_path("m.gray").c_str(), F_OK), 0);  // refused before it was created
  rmdir(temp_path("dir").c_str());
}

// A write that fails exits 1 naming the file and the reason, and no output
// of the run, nor any temporary, is left: a raw mask stream to a full device
// (written in place); a picture's outputs past a 1 KiB file-size limit; the
// overlay of the second of two frames (the first frame's outputs go too).
// The fast network: what it finds does not matter here.
TEST(SegmentTool, FailedWritesExitOneAndLeaveNoOutputs) {
  const std::string out = temp_path("out"), picture = "'" HSEG_EXAMPLES_DIR "/astronaut.png'";
  mkdir(out.c_str(), 0777);
  struct Case {
    const char *what, *before;
    std::string args;
    const char *message, *note;
  };
  // The 64x48 frame is enlarged for the network, and a note says so.
  const Case cases[] = {
      {"raw mask to a full device", "",
       "--fast --raw yuy2 --size 64x48 -o /dev/full " + put("one.yuy2", std::string(2 * 64 * 48, '\x80')),
       "cannot write '/dev/full': No space left on device", "enlarging it to 473x473"},
      {"picture past the file-size limit", "ulimit -f 2; ",
       "--fast " + picture + " -o '" + out + "/m.png' --overlay '" + out + "/ov.png'", "': File too large", ""},
  };
  for (const Case &c : cases) {
    const RunResult r = run_tool(c.args, c.before);
    EXPECT_EQ(r.status, 1) << c.what << "\n" << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.what << ": got\n" << r.err;
    EXPECT_NE(r.err.find(c.note), std::string::npos) << c.what << ": got\n" << r.err;
    EXPECT_EQ(entries(out), "") << c.what;
  }
  mkdir((out + "/ov-000001.png").c_str(), 0777);  // the second frame's overlay cannot be made
  const RunResult r = run_tool("--fast --raw yuy2 --size 64x48 -o '" + out + "/m.gray' --overlay '" + out +
                               "/ov.png' " + put("two.yuy2", std::string(2 * 2 * 64 * 48, '\x80')));
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("ov-000001.png': Is a directory"), std::string::npos) << r.err;
  EXPECT_EQ(entries(out), "ov-000001.png\n");
  rmdir((out + "/ov-000001.png").c_str());
  rmdir(out.c_str());
}

TEST(SegmentTool, HelpDocumentsEveryOption) {
  const RunResult r = run_tool("--help");
  EXPECT_EQ(r.status, 0);
  for (const char *word : {"--mask", "--cutout", "--overlay", "--mask-size", "--blur-background",
                           "--replace-background", "--output", "--raw", "--size", "--time", "--fast",
                           "yuy2", "i420", "nv21", "standard input", "exit status"})
    EXPECT_NE(r.out.find(word), std::string::npos) << word;
}

// Raw YUY2 frames of 474x473: an even width, as YUY2 needs, and nothing to
// enlarge. Frame 0, a ramp with a fine pattern, gets background and person
// from the default (synthetic) weights, so the effect shows on it; frame 1
// is a bright disk on a dark ground.
constexpr int kW = 474, kH = 473;
constexpr size_t kFrameBytes = size_t{2} * kW * kH;

std::string yuy2_frames(int count) {
  std::string f;
  for (int k = 0; k < count; ++k)
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x) {
        const bool in_disk = (x - 237) * (x - 237) + (y - 300) * (y - 300) < 150 * 150;
        f.push_back(static_cast<char>(
            k == 0 ? std::min(255, x * 200 / kW + (x * 7 + y * 13) % 23 * 2) : in_disk ? 230 : 40));
        f.push_back(static_cast<char>(x % 2 == 0 ? 128 + x * 64 / kW : 128 - y * 64 / kH));
      }
  return f;
}

// One run over a two-frame file, which the pipe and the example program
// must reproduce: both frames blurred behind the person, their masks and
// overlays.
class RawBlur : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    run_ = run_tool("--raw yuy2 --size 474x473 --blur-background 6 --time -o " + q("two.gray") +
                    " --overlay " + q("ov.png") + " --output " + q("blurred.yuy2") + " " +
                    put("two.yuy2", yuy2_frames(2)));
    blurred_ = read_text(temp_path("blurred.yuy2"));
  }
  static RunResult run_;
  static std::string blurred_;
};
RunResult RawBlur::run_;
std::string RawBlur::blurred_;

TEST_F(RawBlur, TwoFramesGiveTwoBlurredFramesMasksAndOverlays) {
  ASSERT_EQ(run_.status, 0) << run_.err;
  ASSERT_EQ(blurred_.size(), 2 * kFrameBytes);
  EXPECT_NE(blurred_.compare(0, kFrameBytes, yuy2_frames(1)), 0) << "frame 0's background is not blurred";
  const std::string masks = read_text(temp_path("two.gray"));
  ASSERT_EQ(masks.size(), size_t{2} * kW * kH);
  EXPECT_TRUE(std::all_of(masks.begin(), masks.end(),
                          [](char c) { return c == 0 || static_cast<uint8_t>(c) == 255; }));
  EXPECT_NE(run_.out.find("mean of 2 frames"), std::string::npos) << run_.out;
  for (const char *stage : {"resize", "network", "crf", "final resize", "effect", "total"})
    EXPECT_NE(run_.out.find(stage), std::string::npos) << stage;
  for (const char *name : {"ov-000000.png", "ov-000001.png"})
    EXPECT_EQ(read_text(temp_path(name)).compare(0, 4, "\x89PNG"), 0) << name;
}

// Frames go out as they come in: the two whole frames of a stream cut
// 1000 bytes into its third are written, the same bytes as from the file,
// and the cut is an error that counts them.
TEST_F(RawBlur, PipeGivesTheSameFramesAndACutStreamFails) {
  const RunResult r = run_piped(put("cut.yuy2", yuy2_frames(2) + std::string(1000, '\x80')),
                                "--raw yuy2 --size 474x473 --blur-background 6 --output - -");
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("standard input ends 1000 bytes into frame 2, after 2 whole frames"),
            std::string::npos) << r.err;
  EXPECT_EQ(r.out.size(), blurred_.size());
  EXPECT_TRUE(r.out == blurred_);
}

TEST_F(RawBlur, ExampleProgramGivesTheToolsFrame) {
  const RunResult r = hseg_test::run("'" HSEG_EXAMPLE_PROGRAM "' 6 " + put("frame.yuy2", yuy2_frames(1)) +
                                     " " + q("example.yuy2") + " yuy2 474x473");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(read_text(temp_path("example.yuy2")) == blurred_.substr(0, kFrameBytes));
}

// A 24-bit BMP of 200x100 pixels: grey 77 in the middle 100 columns, white
// on either side.
std::string striped_bmp() {
  const uint32_t w = 200, h = 100, row = 3 * w;  // a multiple of 4: no padding
  std::string b = "BM";
  auto put32 = [&b](uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) b.push_back(static_cast<char>(v >> (8 * i)));
  };
  for (uint32_t v : {54 + row * h, 0u, 54u, 40u, w, h}) put32(v, 4);
  put32(1, 2);   // planes
  put32(24, 2);  // bits a pixel
  for (uint32_t v : {0u, row * h, 2835u, 2835u, 0u, 0u}) put32(v, 4);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) b.append(3, static_cast<char>(x >= 50 && x < 150 ? 77 : 255));
  return b;
}

// The striped picture covers the frame keeping its proportions, so only its
// grey middle shows behind the person: Y 77, U and V 128 wherever the mask
// is background, the frame as it was wherever it is person (both away from
// the mask's edge, which is feathered). The fast network: the mask is the
// run's own.
TEST(SegmentTool, ReplacedBackgroundShowsThePictureCoveringTheFrame) {
  const std::string in = yuy2_frames(1);
  const RunResult r = run_tool("--fast --raw yuy2 --size 474x473 --replace-background " +
                               put("striped.bmp", striped_bmp()) + " -o " + q("m.gray") + " --output " +
                               q("replaced.yuy2") + " " + put("frame.yuy2", in));
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string mask = read_text(temp_path("m.gray")), out = read_text(temp_path("replaced.yuy2"));
  ASSERT_EQ(mask.size(), size_t{1} * kW * kH);
  ASSERT_EQ(out.size(), kFrameBytes);
  const int kMargin = 8;
  int background = 0, person = 0, wrong = 0;
  for (int y = kMargin; y < kH - kMargin; y += 4) {
    for (int x = kMargin; x + 1 < kW - kMargin; x += 4) {  // x even: one Y0 U Y1 V group
      uint8_t lo = 255, hi = 0;
      for (int dy = -kMargin; dy <= kMargin; ++dy)
        for (int dx = -kMargin; dx <= kMargin + 1; ++dx) {
          const uint8_t m = static_cast<uint8_t>(mask[size_t{1} * (y + dy) * kW + x + dx]);
          lo = std::min(lo, m);
          hi = std::max(hi, m);
        }
      const size_t at = size_t{2} * (size_t{1} * y * kW + x);
      if (hi == 0) {
        ++background;
        wrong += out.compare(at, 4, "\x4d\x80\x4d\x80") != 0;
      } else if (lo == 255) {
        ++person;
        wrong += out.compare(at, 4, in, at, 4) != 0;
      }
    }
  }
  EXPECT_GT(background, 0);
  EXPECT_EQ(wrong, 0) << "of " << background << " background and " << person << " person groups";
}

}  // namespace
