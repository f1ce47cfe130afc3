// ipapp-check --batch: many elements checked the way single runs check them,
// with the modules read once and a process per element's commit.
#ifndef IPAPP_CHECK_BATCH_H
#define IPAPP_CHECK_BATCH_H

#include <ipapp/check_engine.h>
#include <ipapp/edit.h>

#include <chrono>
#include <string>

namespace ipapp::check {

struct BatchOptions {
  std::string dir;     ///< one sub-directory per element
  int jobs = 1;        ///< elements checked at a time
  std::string format;  ///< "text", "json" or "junit"
  std::string yang;
  std::string plugin;
  Options options;  ///< keep_going and trace as a single run takes them
  std::chrono::milliseconds timeout{60000};
  host::DefaultOperation default_operation = host::DefaultOperation::kMerge;
};

/// Checks every element of options.dir and writes the batch's report to
/// standard output; returns the worst of the elements' exit statuses (or 2
/// when the batch itself cannot run: no elements, modules that do not load,
/// a report that cannot be written).
int RunBatch(const BatchOptions &options);

/// Text for an XML attribute value (or, attribute false, element content):
/// markup characters and an attribute's line breaks and tabs as references,
/// characters XML cannot carry and bytes that are not UTF-8 as \xNN escapes.
std::string EscapeXml(const std::string &text, bool attribute = true);

}  // namespace ipapp::check

#endif  // IPAPP_CHECK_BATCH_H
