// Every recognised case of the detectors, from a tree mastered at test time
// into the kind of image real media of that system are. One table drives
// them all; a row names the tree, the medium and the record expected.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "support/testSupport.h"

namespace {

using media_corpus::Case;
using media_corpus::Medium;

constexpr Medium RR = Medium::RockJoliet;
constexpr Medium UDF = Medium::Udf;
constexpr GuessResult YES = GUESS_RECOGNIZED;
constexpr GuessResult NO = GUESS_NOT_RECOGNIZED;

}  // namespace

namespace media_corpus {
const std::vector<Case> kRedHatCases = {
    // Red Hat family, with ".DISCINFO".
    {"centos8", RR, YES, "centos8-64", GUESS_VERSION_CENTOS_8},
    {"centos8", UDF, YES, "centos8-64", GUESS_VERSION_CENTOS_8},
    {"centos8-stream", RR, YES, "centos8-64", GUESS_VERSION_CENTOS_8_STREAM},
    {"centos8-i386", RR, NO, nullptr},
    {"centos9-stream", RR, YES, "centos9-64", GUESS_VERSION_CENTOS_9_STREAM, true},
    {"centos3", RR, YES, "centos", GUESS_VERSION_CENTOS_3},
    {"centos4", RR, YES, "centos-64", GUESS_VERSION_CENTOS_4},
    {"centos5", RR, YES, "centos-64", GUESS_VERSION_CENTOS_5},
    {"centos6", RR, YES, "centos6-64", GUESS_VERSION_CENTOS_6},
    {"centos6-i386", RR, YES, "centos6", GUESS_VERSION_CENTOS_6},
    {"centos7", RR, YES, "centos7-64", GUESS_VERSION_CENTOS_7},
    {"centos7", UDF, YES, "centos7-64", GUESS_VERSION_CENTOS_7},
    {"centos7-minimal", RR, YES, "centos7-64", GUESS_VERSION_CENTOS_7_MINIMAL},
    {"centos7-i386", RR, NO, nullptr},
    {"rhel3", RR, YES, "rhel3-64"},
    {"rhel4-i386", RR, YES, "rhel4"},
    {"rhel5-server", RR, YES, "rhel5-64"},
    {"rhel5-client-i386", RR, YES, "rhel5"},
    {"final", RR, YES, "centos-64"},
    {"rhel6", RR, YES, "rhel6-64"},
    {"rhel7-name-server", RR, YES, "rhel7-64", GUESS_VERSION_RHEL_SERVER},
    {"rhel7-name-workstation", RR, YES, "rhel7-64", GUESS_VERSION_RHEL_WORKSTATION},
    {"rhel7-name-client-i386", RR, YES, "rhel7", GUESS_VERSION_RHEL_CLIENT},
    {"rhel79-server-workstation", RR, YES, "rhel7-64", GUESS_VERSION_RHEL_WORKSTATION},
    {"rhel79-server-workstation", UDF, YES, "rhel7-64", GUESS_VERSION_RHEL_WORKSTATION},
    {"rhel79-server", RR, YES, "rhel7-64", GUESS_VERSION_RHEL_SERVER},
    {"rhel79-client", RR, YES, "rhel7-64", GUESS_VERSION_RHEL_CLIENT},
    {"rhel79-no-variant", RR, NO, nullptr},
    {"rhel79-no-treeinfo", RR, NO, nullptr},
    {"rhel84-aarch64", RR, YES, "rhel8-64", GUESS_VERSION_UNKNOWN, true},
    {"rhel9", RR, YES, "rhel9-64"},
    {"rhel9", UDF, YES, "rhel9-64"},
    {"rhel9-aarch64", RR, YES, "arm-rhel9-64", GUESS_VERSION_UNKNOWN, true},
    {"rhel10", RR, YES, "rhel10-64", GUESS_VERSION_UNKNOWN, true},
    {"rhel10-aarch64", RR, YES, "arm-rhel10-64", GUESS_VERSION_UNKNOWN, true},
    {"asianux7-live", RR, YES, "asianux7-64", GUESS_VERSION_ASIANUX_7_LIVE},
    {"asianux7", RR, YES, "asianux7-64"},
    {"asianux3-i386", RR, YES, "asianux3"},
    {"asianux4", RR, YES, "asianux4-64"},
    {"oracle4", RR, YES, "oraclelinux-64"},
    {"oracle5-i386", RR, YES, "oraclelinux"},
    {"oracle6", RR, YES, "oraclelinux6-64"},
    {"oracle7", RR, YES, "oraclelinux7-64"},
    {"oracle8", RR, YES, "oraclelinux8-64"},
    {"oracle86-i386", RR, NO, nullptr},
    {"oracle9", RR, YES, "oraclelinux9-64"},
    {"oracle10", RR, YES, "oraclelinux10-64"},
    {"fedora8", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_8},
    {"fedora12", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_9_TO_12},
    {"fedora13", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_13},
    {"fedora16", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_14_TO_16},
    {"fedora17", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_17},
    {"fedora18", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_18},
    {"fedora20", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_19_TO_20},
    {"fedora21", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_21},
    {"fedora28", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_22_TO_28},
    {"fedora29", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_29_OR_HIGHER},
    {"fedora33-aarch64", RR, YES, "arm-Fedora-64", GUESS_VERSION_FEDORA_29_OR_HIGHER, true},
    {"fedora7-i386", RR, YES, "Fedora"},
    {"fedora-core6", RR, YES, "Fedora"},
    {"fedora-server21", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_21},
    {"fedora-legal-only", RR, YES, "Fedora-64"},
    {"alma9", RR, YES, "almaLinux-64"},
    {"alma9-aarch64", RR, YES, "arm-almaLinux-64", GUESS_VERSION_UNKNOWN, true},
    {"rocky9", RR, YES, "rockyLinux-64"},
    {"rocky9-aarch64", RR, YES, "arm-rockyLinux-64", GUESS_VERSION_UNKNOWN, true},
    {"unknown-name", RR, NO, nullptr},
    {"unknown-arch", RR, NO, nullptr},
    {"aarch64-centos", RR, NO, nullptr},
    {"short-discinfo", RR, NO, nullptr},
    // Red Hat family without ".DISCINFO".
    {"rhel7-boot", RR, YES, "rhel7-64"},
    {"rhel7-boot", UDF, YES, "rhel7-64"},
    {"rhel7-boot-i386", RR, YES, "rhel7"},
    {"rhel7-boot-noarch", RR, NO, nullptr},
    {"redhat9", RR, YES, "redhat"},
    {"rhel21", RR, YES, "rhel2"},
    {"rhel3-notes", RR, NO, nullptr},
    {"asianux7-livecd", RR, YES, "asianux7-64", GUESS_VERSION_ASIANUX_7_LIVE, true},
    {"fedora-live-aarch64", RR, YES, "arm-Fedora-64", GUESS_VERSION_FEDORA_LIVE, true},
    {"fedora-live-aarch64", UDF, YES, "arm-Fedora-64", GUESS_VERSION_FEDORA_LIVE, true},
    {"fedora-live", RR, YES, "Fedora-64", GUESS_VERSION_FEDORA_LIVE},
    {"fedora-live-noefi", RR, YES, "Fedora", GUESS_VERSION_FEDORA_LIVE},
    {"live-unknown", RR, NO, nullptr},
    {"empty", RR, NO, nullptr},
    {"empty", UDF, NO, nullptr},
};
}  // namespace media_corpus

namespace {

class RedHatCorpus : public testing::TestWithParam<Case> {};
TEST_P(RedHatCorpus, Detects) {
  media_corpus::CheckCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Media, RedHatCorpus, testing::ValuesIn(media_corpus::kRedHatCases),
                         [](const auto &info) { return media_corpus::CaseName(info.param); });

}  // namespace
