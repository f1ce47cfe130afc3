// What the checker's text and JUnit output make of names and texts taken
// from configurations and plug-ins: nothing in them can start a line, drive
// a terminal or break the XML, and well-formed text passes unchanged.
#include <gtest/gtest.h>

#include <string>

#include "batch.h"
#include "printable.h"

namespace check_test {
namespace {

struct Case {
  const char *name;
  std::string in, out;
};

TEST(Printable, EscapesControlsAndMalformedBytesOnly) {
  const Case cases[] = {
      {"plain, backslash kept", "l3 core1 \\ 10.0.0.1/24", "l3 core1 \\ 10.0.0.1/24"},
      {"line breaks and tab", "a\nb\rc\td", "a\\nb\\rc\\td"},
      {"escape and bell", "\x1b[2Kx\a", "\\x1b[2Kx\\x07"},
      {"DEL", "\x7f", "\\x7f"},
      {"two-byte character", "caf\xc3\xa9", "caf\xc3\xa9"},
      {"four-byte character", "\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"},
      {"C1 control", "\xc2\x9b", "\\u009b"},
      {"Latin-1 byte", "caf\xe9", "caf\\xe9"},
      {"overlong slash", "\xc0\xaf", "\\xc0\\xaf"},
      {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
      {"past U+10FFFF", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
      {"cut short at the end", "x\xe2\x82", "x\\xe2\\x82"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(ipapp::check::Printable(c.in), c.out);
  }
}

TEST(EscapeXml, KeepsMarkupCharactersAndForbiddenCodePointsOut) {
  const Case attribute[] = {
      {"markup", "a<b>&\"c'", "a&lt;b&gt;&amp;&quot;c&apos;"},
      {"line breaks become references", "x\ny\tz", "x&#10;y&#9;z"},
      {"C0 control", "\x01", "\\x01"},
      {"two-byte character", "caf\xc3\xa9", "caf\xc3\xa9"},
      {"Latin-1 byte", "caf\xe9", "caf\\xe9"},
      {"U+FFFE", "\xef\xbf\xbe", "\\xef\\xbf\\xbe"},
      {"cut short at the end", "\xf0\x9f\x98", "\\xf0\\x9f\\x98"},
  };
  for (const Case &c : attribute) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(ipapp::check::EscapeXml(c.in), c.out);
  }
  // Element content keeps its lines.
  EXPECT_EQ(ipapp::check::EscapeXml("x\ny <z>", false), "x\ny &lt;z&gt;");
}

}  // namespace
}  // namespace check_test
