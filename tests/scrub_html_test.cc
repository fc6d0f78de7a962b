// test-links: scrub_objects
// Tests of vorn-scrub's page what the browser does not show: its escapes, how it merges points, its
// limits, and the temporary file.
// SPDX-License-Identifier: Apache-2.0
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <vector>

#include "html_report.hpp"
#include "support/scratch.hpp"

namespace {

namespace fs = std::filesystem;
using scrub::Html;
using scrub::HtmlReport;
using scrub::Series;

std::string text_of(std::string_view text) { return Html().text(text).markup(); }
std::string path_of(std::string_view path) { return Html().path(path).markup(); }

TEST(HtmlEscape, LeavesNoMarkupNoControlAndNoChangeOfDirection) {
  EXPECT_EQ(text_of("<a href=\"x\" id='y'>&amp;"),
            "&lt;a href=&quot;x&quot; id=&#39;y&#39;&gt;&amp;amp;");
  EXPECT_EQ(text_of("55 % of\nit"), "55 % of\nit");
  EXPECT_EQ(text_of("a\x1b[2J \xff\xc3"), "a%1B[2J %FF%C3");
  EXPECT_EQ(path_of("a b%\n<"), "a%20b%25%0A&lt;");
  EXPECT_EQ(path_of("\xE2\x80\xAE"
                    "fdp.exe \xE2\x81\xA6\xD8\x9C"),
            "%E2%80%AEfdp.exe%20%E2%81%A6%D8%9C");
  EXPECT_EQ(path_of("\xE2\x80\xA6\xD7\x90"),
            "\xE2\x80\xA6\xD7\x90"); // an ellipsis, a Hebrew letter
}

TEST(Series, MergesPointsPairwiseAndLosesNoByte) {
  Series series;
  constexpr std::uint64_t kSecond = 1'000'000'000;
  for (std::uint64_t second = 0; second < 1000; ++second)
    series.add_read_at(second * kSecond, 10, second * 1000);
  const Series::Figures figures = series.figures();
  EXPECT_LE(figures.points.size(), Series::kPoints);
  EXPECT_GE(figures.points.size(), Series::kPoints / 2);
  EXPECT_EQ(figures.points.size() - 1, 999 * kSecond / figures.interval);
  std::uint64_t bytes = 0;
  for (const std::uint64_t point : figures.points)
    bytes += point;
  EXPECT_EQ(bytes, 10'000u);
  EXPECT_EQ(figures.longest, 999'000u);
  // Below 1 microsecond, 1, 2 and 3, 4 to 7, and so on.
  EXPECT_EQ(figures.latency[0], 1u);
  EXPECT_EQ(figures.latency[1], 1u);
  EXPECT_EQ(figures.latency[2], 2u);
  EXPECT_EQ(figures.latency[10], 1000u - 512);

  series.add_read_at(~std::uint64_t{0}, 5, ~std::uint64_t{0});
  EXPECT_EQ(series.figures().latency.back(), 1u);
}

class HtmlFile : public testing::Test {
protected:
  HtmlFile() : own_(1) {
    own_[0].manifest_directory = own_[0].log_directory = directory_.path();
    own_[0].manifest_name = "m";
    scratch::write_file(at("old.html"), old_);
  }

  std::string at(const std::string &name) const { return directory_ / name; }
  std::size_t files() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(directory_.path()), {}));
  }

  const std::string old_ = std::string(scrub::kPageStart.text()) + "old";
  scratch::Directory directory_;
  std::vector<scrub::OwnPaths> own_;
};

TEST_F(HtmlFile, AppearsWhenItIsCompleteAndElseLeavesNothing) {
  {
    HtmlReport report(at("old.html"), own_);
    EXPECT_EQ(files(), 2u);
  }
  EXPECT_EQ(files(), 1u);
  EXPECT_EQ(scratch::read_file(at("old.html")), old_);
  fs::create_symlink("old.html", at("link.html"));
  {
    HtmlReport report(at("link.html"), own_);
    report.finish({});
  }
  EXPECT_EQ(files(), 2u);
  EXPECT_TRUE(fs::is_symlink(at("link.html")));
  EXPECT_NE(scratch::read_file(at("old.html")).find("</html>"), std::string::npos);
  struct stat status {};
  ASSERT_EQ(stat(at("old.html").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST_F(HtmlFile, RefusesDirectoriesDevicesAndFilesOfTheRun) {
  fs::create_symlink("m", at("link"));
  scratch::write_file(at("m"), "manifest");
  for (const std::string &path :
       {at("m"), at("m.log"), at("m.log.1"), at("m.unfinished"), at("link"), at("x/"),
        directory_.path(), std::string("/dev/null"), std::string()})
    EXPECT_THROW(HtmlReport(path, own_), std::runtime_error) << path;
  EXPECT_THROW(HtmlReport(at("none/x.html"), own_), std::system_error);
  EXPECT_EQ(files(), 3u);
}

TEST_F(HtmlFile, SaysHowManyFindingsItLeavesOut) {
  HtmlReport report(at("x.html"), own_);
  scrub::Finding finding;
  finding.verdict = scrub::Verdict::kNew;
  for (std::size_t i = 0; i < HtmlReport::kMostRows + 1234; ++i)
    report.add_finding(finding);
  finding.verdict = scrub::Verdict::kDamaged;
  finding.path = "late";
  report.add_finding(finding);
  scrub::PageFigures figures;
  figures.directories.emplace_back();
  report.finish(figures);
  const std::string page = scratch::read_file(at("x.html"));
  EXPECT_NE(page.find("1,234 more rows"), std::string::npos);
  EXPECT_NE(page.find(">late<"), std::string::npos);
}

} // namespace
