// zt: the RIP's command-line back end. Subcommands each live in their own
// file; this one dispatches, prints help and version, and turns failures
// into one line on stderr and an exit status.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "tool.h"

namespace zt::tool {

namespace {

struct Help {
  const char *name;
  const char *text;
};

const Help kHelp[] = {
    {"", R"(usage: zt COMMAND [OPTIONS]

Turns page images into screened, printer-ready VLIMG planes.

commands:
  rip      page image (or the built-in test page) to screened VLIMG planes and a preview
  info     the header items, pages and tiles of a VLIMG file
  extract  a page or one plane of a VLIMG file as PNG or TIFF
  merge    the pages of several VLIMG files into one
  log      show or trim the library's error log of an installation root
  page     write the built-in test page as an image
  help     help on a command

Every command takes --help, --quiet and --verbose; zt --version prints the version.
Exit status: 0 success, 1 failure (one line on stderr), 2 usage error.
)"},
    {"rip", R"(usage: zt rip [INPUT] -o OUT.vlimg [options]

INPUT is a PNG, TIFF (every page) or JPEG, 8 or 16 bits, grey, RGB or CMYK;
without it the built-in A4 test page is drawn at the device resolution.

  -o, --output FILE        the VLIMG file to write (required)
  --preview FILE.png       a simulation of the print, at most --preview-size pixels long
  --preview-size N         longest side of the preview (default 2000)
  --dpi X[xY]              device resolution (default 720)
  --levels N               evenly spaced levels a pixel, 2 ... 16 (default 4)
  --paper-profile FILE     drop sizes and their measured colour (see zt help paper-profile)
  --screen NAME            ed, bluenoise, halftone, ordered or pattern (default ed)
  --lpi L                  halftone lines per inch (default 150)
  --angles c,m,y,k         halftone angles in degrees (default: the library's CMYK set)
  --profile FILE.icc       CMYK output profile (default: )" ZT_DEFAULT_CMYK_PROFILE R"()
  --input-profile FILE.icc profile of the input (default: embedded, else sRGB, grey 2.2 or the output profile)
  --intent NAME            perceptual, relative, saturation or absolute (default relative)
  --compress NAME          lz4, deflate, packbits, lzw, g4 or none (default lz4)
  --tile N                 tile side (default 256)
  --threads N              worker threads (default: all cores)
  --pages A-B              rip only pages A to B of the input (1-based)
  --input-dpi X            resolution assumed for inputs that state none (default 72)
  --page-size A4           size of the built-in page: A0 ... A4 (default A4)
  --bits B                 output bits a plane (default: the fewest that hold the levels)
  -q, --quiet / -v, --verbose   no progress / progress and the library's messages
)"},
    {"info", R"(usage: zt info FILE.vlimg [--json]

Every header item by name for each page, its tiles, codecs and sizes.
)"},
    {"extract", R"(usage: zt extract FILE.vlimg -o OUT.png|OUT.tif [--page N] [--channel K]

Writes page N (1-based, default 1) as an image: 8-bit codes scaled to full
range, one plane with --channel K (1-based) as a grey image, else every plane
(a CMYK page as a CMYK TIFF; PNG takes one plane or three).
)"},
    {"merge", R"(usage: zt merge A.vlimg B.vlimg ... -o OUT.vlimg

Copies every page of the inputs, in order, into one multi-page file; pixels
are identical to the inputs'.
)"},
    {"log", R"(usage: zt log [--root DIR] [--trim [--max-age SECONDS]]

Prints the records of DIR/errors.log (DIR: --root, else $ZT_ROOT, else the
current folder) as "time module function message"; --trim rewrites the file
keeping well-formed records not older than --max-age (0: all).
)"},
    {"page", R"(usage: zt page -o OUT.tif|OUT.png|OUT.ps [--dpi X[xY]] [--page-size A4]

Writes the built-in test page (in the default press profile's inks) as an
image: an 8-bit CMYK TIFF, an sRGB PNG, or a PostScript page holding the CMYK
image (for other renderers). Default 150 dpi.
)"},
    {"paper-profile", R"(Paper-profile files (--paper-profile): plain text, one drop a line,
lightest first (the first is the bare paper), '#' starts a comment:

  yule-nielsen N            optional, default 1.0
  drop CODE X Y Z           dot code written for the drop and its measured XYZ (Y = 1 white)

The number of drops is the number of levels; codes fit the output bits.
)"},
};

const char *help_text(const std::string &command) {
  for (const Help &h : kHelp)
    if (command == h.name) return h.text;
  return nullptr;
}

void on_signal(int sig) {
  drop_pending_outputs();
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

}  // namespace

void print_help(const std::string &command, FILE *to) {
  const char *text = help_text(command);
  std::fputs(text ? text : kHelp[0].text, to);
}

}  // namespace zt::tool

int main(int argc, char **argv) {
  using namespace zt::tool;
  std::signal(SIGINT, on_signal);
  std::signal(SIGTERM, on_signal);
  std::signal(SIGHUP, on_signal);
  std::signal(SIGPIPE, SIG_IGN);
  if (argc < 2) {
    std::fputs("zt: no command given (zt --help lists them)\n", stderr);
    return kUsage;
  }
  const std::string command = argv[1];
  try {
    if (command == "--version" || command == "version") {
      std::printf("zt %s\n", ZT_TOOL_VERSION);
      return kOk;
    }
    if (command == "--help" || command == "-h") {
      print_help("", stdout);
      return kOk;
    }
    if (command == "help") {
      const std::string topic = argc > 2 ? argv[2] : "";
      if (!help_text(topic)) usage_error("no help on '" + topic + "'");
      print_help(topic, stdout);
      return kOk;
    }
    for (int i = 2; i < argc; ++i) {
      if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
        if (!help_text(command)) break;
        print_help(command, stdout);
        return kOk;
      }
      if (std::strcmp(argv[i], "--version") == 0) {
        std::printf("zt %s\n", ZT_TOOL_VERSION);
        return kOk;
      }
    }
    if (command == "rip") return cmd_rip(argc, argv);
    if (command == "info") return cmd_info(argc, argv);
    if (command == "extract") return cmd_extract(argc, argv);
    if (command == "merge") return cmd_merge(argc, argv);
    if (command == "log") return cmd_log(argc, argv);
    if (command == "page") return cmd_page(argc, argv);
    usage_error("unknown command '" + command + "' (zt --help lists them)");
  } catch (const Failure &f) {
    std::fprintf(stderr, "zt %s: %s\n", command.c_str(), f.what());
    return f.status;
  } catch (const std::bad_alloc &) {
    std::fprintf(stderr, "zt %s: out of memory\n", command.c_str());
    return kRuntime;
  } catch (const std::exception &e) {
    std::fprintf(stderr, "zt %s: %s\n", command.c_str(), e.what());
    return kRuntime;
  }
}
