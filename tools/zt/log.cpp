// zt log: the library's error log of an installation root, shown or trimmed.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <zt/init.h>
#include <zt/log.h>

#include "tool.h"

namespace zt::tool {

int cmd_log(int argc, char **argv) {
  Args a(argc, argv, 2);
  std::string root, v;
  bool trim = false;
  int64_t max_age = 0;
  while (!a.done()) {
    if (a.option("--root", v)) root = v;
    else if (a.flag("--trim")) trim = true;
    else if (a.option("--max-age", v)) max_age = parse_u32("--max-age", v, 0, 0x7FFFFFFF);
    else if (a.flag("--quiet") || a.flag("-q")) g_verbosity = Verbosity::kQuiet;
    else if (a.flag("--verbose") || a.flag("-v")) g_verbosity = Verbosity::kVerbose;
    else usage_error("unknown argument '" + a.peek() + "'");
  }
  if (root.empty()) {
    const char *env = std::getenv("ZT_ROOT");
    root = env && *env ? env : ".";
  }
  if (access(root.c_str(), F_OK) != 0) fail(root + ": " + std::strerror(errno));
  const std::string file = root + "/errors.log";
  if (access(file.c_str(), R_OK) != 0) {
    if (errno == ENOENT && !trim) return kOk;  // no log yet: nothing to show
    fail(file + ": " + std::strerror(errno));
  }
  // The trimmed copy is made in the working directory, so work from the root.
  if (chdir(root.c_str()) != 0) fail(root + ": " + std::strerror(errno));
  Library lib(1);
  LogErrorLogtofile(1, "errors.log");
  LogErrorDisable(1);  // our own run adds nothing to the log it reads
  if (trim) {
    if (access(".", W_OK) != 0) fail(root + ": " + std::strerror(errno));
    if (LogErrorTrimLogfile(max_age) != 0) fail(file + ": cannot trim the log");
    return kOk;
  }
  ZTLogBacklog *list = GetErrorMessagesWithBacklog(max_age);
  std::string out;
  if (list) {
    // The first node carries the count and the last node; walk by next.
    for (ZTListNode *n = &list->node; n; n = n->next) {
      auto *rec = reinterpret_cast<ZTLogBacklog *>(n);
      const time_t t = static_cast<time_t>(rec->time);
      char when[32];
      std::tm tm{};
      gmtime_r(&t, &tm);
      std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
      out += std::string(when) + " " + (rec->module ? rec->module : "") + " " + (rec->function ? rec->function : "") +
             " " + (rec->message ? rec->message : "") + "\n";
    }
    ZTLogFreeBacklog(list);
  }
  std::fputs(out.c_str(), stdout);
  if (std::fflush(stdout) != 0) fail("standard output: cannot write");
  return kOk;
}

}  // namespace zt::tool
