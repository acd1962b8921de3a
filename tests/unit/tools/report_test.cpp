#include "report.h"

#include <gtest/gtest.h>

namespace {

using check::CReport;

TEST(Report, WithoutFindingsTheStatusIs0) {
    CReport report;
    report.file = "a.ini";
    EXPECT_EQ(report.text(), "a.ini: no findings\n");
    EXPECT_EQ(report.exitStatus(), 0);
}

TEST(Report, WarningsGiveStatus1) {
    CReport report;
    report.file = "a.ini";
    report.warn(3, "odd");
    EXPECT_EQ(report.text(), "a.ini:3: warning: odd\na.ini: 1 warning\n");
    EXPECT_EQ(report.exitStatus(), 1);
}

TEST(Report, AnErrorYieldsStatus2) {
    CReport report;
    report.file = "a.ini";
    report.warn(1, "odd");
    report.fail(0, "bad");
    report.warn(2, "odd");
    EXPECT_EQ(report.text(), "a.ini:1: warning: odd\na.ini: error: bad\na.ini:2: warning: odd\n"
                             "a.ini: 1 error, 2 warnings: the service would not start\n");
    EXPECT_EQ(report.exitStatus(), 2);
}

TEST(Report, FindingsAreSortedByLineAndThoseWithoutALineAreLast) {
    CReport report;
    for (const std::size_t line : {0U, 7U, 2U, 0U, 7U})
        report.warn(line, std::to_string(report.findings.size()));
    report.sort();
    std::string order;
    for (const check::Finding& finding : report.findings)
        order += finding.text;
    EXPECT_EQ(order, "21403");
}

TEST(Report, TheTableAndTheSentencesPrecedeTheFindings) {
    CReport report;
    report.file = "a";
    report.table = {"row"};
    report.words = {"word"};
    report.warn(1, "odd");
    EXPECT_EQ(report.text(), "a: the service takes these settings from it:\n  row\nWith them:\n  word\n"
                             "a:1: warning: odd\na: 1 warning\n");
}

TEST(Report, TheFileNameIsEscaped) {
    CReport report;
    report.file = "a\x1b[2J\nb";
    EXPECT_EQ(report.text(), "a\\x1b[2J\\x0ab: no findings\n");
}

}  // namespace
