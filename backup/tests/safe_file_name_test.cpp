#include "backup/safe_file_name.hpp"

#include <gtest/gtest.h>

#include <filesystem>

namespace corvane {
namespace {

// A name that stays one component inside its folder.
void expectSafe(const std::string& name) {
  EXPECT_FALSE(name.empty());
  EXPECT_LE(name.size(), SafeFileName::maximumBytes) << name;
  EXPECT_EQ(name.find('/'), std::string::npos) << name;
  EXPECT_EQ(name.find('\\'), std::string::npos) << name;
  EXPECT_NE(name.front(), '.') << name;
  EXPECT_NE(name.front(), ' ') << name;
  for (unsigned char c : name) EXPECT_GE(c, 0x20) << name;
  const std::filesystem::path folder = "/backup/Files";
  EXPECT_EQ((folder / name).lexically_normal().parent_path(), folder) << name;
}

TEST(SafeFileName, TitlesThatNameOtherPlacesOrDevicesStayInsideTheFolder) {
  for (const char* title : {"../../etc/passwd", "..", ".", "/", "a/b\\c:d", "con", "con.txt",
                            "LPT1.log", ".hidden", "  spaced out  ", "trailing...", "", "tab\there",
                            "line\nbreak", "nul\x7f", "a*b?c\"d<e>f|g"})
    expectSafe(SafeFileName::forBody("068000000000001AAA", title, ""));
  EXPECT_EQ(SafeFileName::forBody("068A", "../../etc/passwd", ""), "068A _.._etc_passwd");
  EXPECT_EQ(SafeFileName::clean("con.txt"), "_con.txt");
  EXPECT_EQ(SafeFileName::clean("Com3"), "_Com3");
  EXPECT_EQ(SafeFileName::clean("console.txt"), "console.txt");
  EXPECT_EQ(SafeFileName::clean("../.."), "_");
  EXPECT_EQ(SafeFileName::clean("..."), "");
}

TEST(SafeFileName, ExtensionsAreKeptOnceAndSurviveACutTitle) {
  EXPECT_EQ(SafeFileName::forBody("068A", "Quarterly report", "pdf"), "068A Quarterly report.pdf");
  EXPECT_EQ(SafeFileName::forBody("068A", "Quarterly report.PDF", "pdf"),
            "068A Quarterly report.pdf");
  EXPECT_EQ(SafeFileName::forBody("00PA", "scan.jpeg", ""), "00PA scan.jpeg");
  EXPECT_EQ(SafeFileName::forBody("00PA", "", "png"), "00PA.png");
  const std::string longTitle(1000, 'x');
  const auto name = SafeFileName::forBody("00PA", longTitle + ".docx", "");
  expectSafe(name);
  EXPECT_EQ(name.size(), SafeFileName::maximumBytes);
  EXPECT_EQ(name.substr(name.size() - 5), ".docx");
}

TEST(SafeFileName, UnicodeIsComposedCutAtCharactersAndBadBytesReplaced) {
  // "é" composed and decomposed give the same name.
  EXPECT_EQ(SafeFileName::clean("Re\xCC\x81sume\xCC\x81"), "R\xC3\xA9sum\xC3\xA9");
  EXPECT_EQ(SafeFileName::clean("bad\xFF\xFE"
                                "byte"),
            "bad__byte");
  // Right-to-left override and zero-width characters cannot disguise a name.
  EXPECT_EQ(SafeFileName::clean("invoice\xE2\x80\xAEgpj.exe"), "invoice_gpj.exe");
  std::string umlauts;
  for (int i = 0; i < 300; ++i) umlauts += "\xC3\xBC";  // ü, two bytes each
  const auto cut = SafeFileName::clean(umlauts);
  EXPECT_EQ(cut.size(), 254u);  // never half a character
  expectSafe(SafeFileName::forBody("068A", umlauts, "txt"));
}

}  // namespace
}  // namespace corvane
