#include <gatewise/exception.h>
#include <gatewise/format.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace gw {
namespace {

// printf itself, with correctly typed arguments: the reference every conversion is checked against.
std::string printfOf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string printfOf(const char* fmt, ...) {
  char buffer[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buffer, sizeof buffer, fmt, args);
  va_end(args);
  return buffer;
}

TEST(FormatTest, ConversionsAndFlagsPrintAsPrintfDoes) {
  const int minusOne = -1;
  const unsigned int big = 4000000000u;
  const long negativeLong = -1234567890123L;
  const unsigned long hugeLong = 18446744073709551615ul;
  int here = 0;
  struct Case {
    std::string ours, reference;
  } cases[] = {
      {format("%d|%i|%5d|%-5d|%+d|% d", 42, -7, 42, 42, 42, 42),
       printfOf("%d|%i|%5d|%-5d|%+d|% d", 42, -7, 42, 42, 42, 42)},
      {format("%02d:%02d:%02d", 7, 5, 0), printfOf("%02d:%02d:%02d", 7, 5, 0)},
      {format("%.2d|%.0d|%.3d", 5, 0, -4), printfOf("%.2d|%.0d|%.3d", 5, 0, -4)},
      {format("%u|%u", big, minusOne), printfOf("%u|%u", big, minusOne)},
      {format("%ld|%lu|%lld", negativeLong, hugeLong, 9LL),
       printfOf("%ld|%lu|%lld", negativeLong, hugeLong, 9LL)},
      {format("%x|%X|%#x|%08x|%o", 255, 255, 255, 0xbeef, 8),
       printfOf("%x|%X|%#x|%08x|%o", 255, 255, 255, 0xbeef, 8)},
      // An int's bits stay 32 wide in hex; a long's stay 64 wide.
      {format("%x|%lx", minusOne, -1L), printfOf("%x|%lx", minusOne, -1L)},
      {format("%hd|%hhu|%hx", 70000, 300, -1), printfOf("%hd|%hhu|%hx", 70000, 300, -1)},
      {format("%c%c|%3c", 'o', 'k', 'x'), printfOf("%c%c|%3c", 'o', 'k', 'x')},
      {format("%s|%10s|%-6s|%.3s", "abc", "right", "left", "truncate"),
       printfOf("%s|%10s|%-6s|%.3s", "abc", "right", "left", "truncate")},
      {format("%f|%.2f|%8.3f|%e|%g|%G", 3.14159, 2.5, -1.0, 12345.678, 0.0001, 1e20),
       printfOf("%f|%.2f|%8.3f|%e|%g|%G", 3.14159, 2.5, -1.0, 12345.678, 0.0001, 1e20)},
      {format("%p|%p", static_cast<void*>(&here), nullptr),
       printfOf("%p|%p", static_cast<void*>(&here), static_cast<void*>(nullptr))},
      {format("100%% sure %%d"), printfOf("100%% sure %%d")},
      {format("%*d|%-*d|%.*f|%*s", 6, 42, 4, 7, 3, 1.23456, -5, "ab"),
       printfOf("%*d|%-*d|%.*f|%*s", 6, 42, 4, 7, 3, 1.23456, -5, "ab")},
      {format("%.*s|%.*d", -1, "negative precision is ignored", -3, 5),
       printfOf("%.*s|%.*d", -1, "negative precision is ignored", -3, 5)},
  };
  for (const Case& c : cases) EXPECT_EQ(c.ours, c.reference);
}

TEST(FormatTest, StringsComeFromEveryStringType) {
  std::string owned = "owned";
  std::string_view view = std::string_view("viewed text").substr(0, 6);
  char buffer[] = "mutable";
  const char* nothing = nullptr;
  EXPECT_EQ(format("%s %s %s %s", owned, view, buffer, nothing), "owned viewed mutable (null)");
  EXPECT_EQ(format("%@ %@", owned, nothing), "owned (null)");
  // A precision bounds the read: the bytes need not be terminated within it.
  const char unterminated[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(format("%.3s", static_cast<const char*>(unterminated)), "abc");
}

class Named : public GWObject {
 public:
  explicit Named(std::string name) : name_(std::move(name)) {}
  std::string description() const override { return "<Named " + name_ + ">"; }

 private:
  std::string name_;
};

TEST(FormatTest, AtPrintsDescriptionsOfValuesObjectsAndExceptions) {
  plist::Value text("plain");
  plist::Value number(12);
  EXPECT_EQ(format("[%@] [%@]", text, number), "[plain] [" + plist::description(number) + "]");
  plist::Value array = plist::Value::newArray({1, "two"});
  EXPECT_EQ(format("%@", array), plist::description(array));
  EXPECT_EQ(format("%@", array.array()), plist::description(array));
  EXPECT_EQ(format("%@", plist::DictionaryRef()), "(null)");

  auto object = std::make_shared<Named>("clock");
  const Named* raw = object.get();
  std::shared_ptr<Named> none;
  EXPECT_EQ(format("%@ %@ %@ %@", object, *object, raw, none),
            "<Named clock> <Named clock> <Named clock> (null)");

  GWException exception("GWCurfews", "bad curfew entry");
  EXPECT_EQ(format("*** Caught exception: %@", exception),
            "*** Caught exception: bad curfew entry");
  std::runtime_error plain("standard error text");
  EXPECT_EQ(format("%@", plain), "standard error text");

  EXPECT_EQ(format("%@|%@|%@", 5, 2.5, std::uint64_t(UINT64_MAX)), "5|2.5|18446744073709551615");
  EXPECT_EQ(format("[%8@][%-8@][%.3@]", text, text, text), "[   plain][plain   ][pla]");
}

TEST(FormatTest, MismatchedAndMissingArgumentsPrintMarkers) {
  EXPECT_EQ(format("%d", "text"), "(%d?)");
  EXPECT_EQ(format("%s", 42), "(%s?)");
  EXPECT_EQ(format("%c", 1.5), "(%c?)");
  EXPECT_EQ(format("%p", 7), "(%p?)");
  EXPECT_EQ(format("%x", plist::Value(1)), "(%x?)");
  // A missing argument: marker, and the following text is still written.
  EXPECT_EQ(format("%d and %s then %@ end", 1), "1 and (%s?) then (%@?) end");
  // Surplus arguments are ignored; a mismatch still consumes its argument.
  EXPECT_EQ(format("%d", 1, 2, 3), "1");
  EXPECT_EQ(format("%d %d", "no", 2), "(%d?) 2");
  // A non-integer "*" counts as zero and is consumed.
  EXPECT_EQ(format("%*d|", "wide", 5), "5|");
  // An integer for a real conversion prints as that number.
  EXPECT_EQ(format("%.1f", 3), "3.0");
}

TEST(FormatTest, OddFormatTextIsKeptAndNothingIsReadOutOfBounds) {
  EXPECT_EQ(format("100%"), "100%");
  EXPECT_EQ(format("ends with %-5"), "ends with %-5");
  EXPECT_EQ(format("ends with %l", 1), "ends with %l");
  int count = 0;
  EXPECT_EQ(format("%n stays", &count), "%n stays");
  EXPECT_EQ(count, 0);
  EXPECT_EQ(format("%y %d", 3), "%y 3");
  EXPECT_EQ(format(std::string_view("a%\0b", 4)), std::string("a%\0b", 4));
  // Widths are capped, also from "*", so a hostile width cannot exhaust memory.
  EXPECT_EQ(format("%999999999d", 1).size(), 4096u);
  EXPECT_EQ(format("%*d", INT32_MIN, 1).size(), 4096u);
  EXPECT_EQ(format("%.*f", INT32_MAX, 1.0).size(), 4098u);
  EXPECT_EQ(format(""), "");
}

}  // namespace
}  // namespace gw
