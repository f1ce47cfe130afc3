#include "keypath.h"

#include <utility>

namespace ipapp::netconfd {

std::vector<KeypathStep> ParseKeypath(const std::string &keypath) {
  std::vector<KeypathStep> steps;
  size_t i = 0;
  const size_t n = keypath.size();
  while (i < n) {
    if (keypath[i] != '/') return {};
    KeypathStep step;
    const size_t start = ++i;
    while (i < n && keypath[i] != '/' && keypath[i] != '{') ++i;
    const std::string name = keypath.substr(start, i - start);
    step.name = name.substr(name.find(':') + 1);  // npos + 1 == 0
    if (step.name.empty()) return {};
    if (i < n && keypath[i] == '{') {
      step.entry = true;
      for (++i;;) {
        while (i < n && keypath[i] == ' ') ++i;
        if (i >= n) return {};
        if (keypath[i] == '}') {
          ++i;
          break;
        }
        std::string key;
        if (keypath[i] == '"') {
          for (++i; i < n && keypath[i] != '"'; ++i) {
            if (keypath[i] == '\\' && i + 1 < n) ++i;
            key += keypath[i];
          }
          if (i >= n) return {};
          ++i;
        } else {
          while (i < n && keypath[i] != ' ' && keypath[i] != '}') key += keypath[i++];
        }
        step.keys.push_back(std::move(key));
      }
      if (step.keys.empty()) return {};
    }
    steps.push_back(std::move(step));
  }
  return steps;
}

std::string XPathLiteral(const std::string &value) {
  if (value.find('\'') == std::string::npos) return "'" + value + "'";
  if (value.find('"') == std::string::npos) return "\"" + value + "\"";
  // Both quotes: pieces without an apostrophe, joined by "'".
  std::string out = "concat(";
  size_t start = 0;
  for (size_t quote; (quote = value.find('\'', start)) != std::string::npos; start = quote + 1) {
    out += "'" + value.substr(start, quote - start) + "', \"'\", ";
  }
  return out + "'" + value.substr(start) + "')";
}

}  // namespace ipapp::netconfd
