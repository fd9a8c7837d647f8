#include "lockservice/share_modes.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/output_stream.h"

namespace klv {

namespace {

std::string ModeText(uint32_t openmode) {
  TextBuilder out;
  WriteOpenMode(out, openmode);
  const RefString text = out.Bytes();
  return std::string(text.Text(), text.Length());
}

TEST(ShareModes, IndexOfTheNamedModes) {
  EXPECT_EQ(CompatibilityIndex(OPEN_READ | DENY_MSDOS), 0);
  EXPECT_EQ(CompatibilityIndex(OPEN_READ | DENY_NONE), 1);
  EXPECT_EQ(CompatibilityIndex(OPEN_READ | DENY_READ), 2);
  EXPECT_EQ(CompatibilityIndex(OPEN_READ | DENY_WRITE), 3);
  EXPECT_EQ(CompatibilityIndex(OPEN_READ | DENY_READWRITE), 4);
  EXPECT_EQ(CompatibilityIndex(OPEN_WRITE | DENY_MSDOS), 5);
  EXPECT_EQ(CompatibilityIndex(OPEN_WRITE | DENY_READWRITE), 9);
  EXPECT_EQ(CompatibilityIndex(OPEN_READWRITE | DENY_MSDOS), 10);
  EXPECT_EQ(CompatibilityIndex(OPEN_READWRITE | DENY_READWRITE), 14);
}

TEST(ShareModes, UnnamedValuesShareLikeTheirClass) {
  EXPECT_EQ(CompatibilityIndex(3 | 0x20), CompatibilityIndex(0 | 0x20));   // execute = read
  EXPECT_EQ(CompatibilityIndex(15 | 0x30), CompatibilityIndex(2 | 0x30));  // MS-DOS = read-write
  for (uint32_t access = 4; access <= 14; ++access) {
    EXPECT_EQ(CompatibilityIndex(access | 0x10), 4) << "access " << access;
  }
  for (uint32_t deny : {0x50u, 0x60u, 0x70u}) {
    EXPECT_EQ(CompatibilityIndex(1 | deny), 6) << "deny " << deny;
  }
  EXPECT_EQ(CompatibilityIndex(0xFFFFFF80 | 2 | 0x20), 13);  // bits above 6 are ignored
}

TEST(ShareModes, TableAgreesInEitherOrder) {
  for (int held = 0; held < kShareModes; ++held) {
    for (int fresh = 0; fresh < kShareModes; ++fresh) {
      EXPECT_EQ(ShareTable[held][fresh], ShareTable[fresh][held]) << held << " " << fresh;
    }
  }
}

TEST(ShareModes, AgreementReadsRowHeldColumnNew) {
  const OpenLock read_deny_read{{}, OPEN_READ | DENY_READ, 1};
  const OpenLock write_deny_none{{}, OPEN_WRITE | DENY_NONE, 2};
  const OpenLock read_deny_none{{}, OPEN_READ | DENY_NONE, 3};
  EXPECT_TRUE(ShareModesAgree(write_deny_none, read_deny_read));
  EXPECT_TRUE(ShareModesAgree(read_deny_read, write_deny_none));
  EXPECT_FALSE(ShareModesAgree(read_deny_none, read_deny_read));
  EXPECT_FALSE(ShareModesAgree(read_deny_read, read_deny_read));
}

TEST(ShareModes, NamedModesAsText) {
  EXPECT_EQ(ModeText(0x00), "OPEN_READ|DENY_MSDOS");
  EXPECT_EQ(ModeText(0x11), "OPEN_WRITE|DENY_READWRITE");
  EXPECT_EQ(ModeText(0x22), "OPEN_READWRITE|DENY_WRITE");
  EXPECT_EQ(ModeText(0x33), "OPEN_EXECUTE(=READ)|DENY_READ");
  EXPECT_EQ(ModeText(0x4F), "OPEN_MSDOS(=READWRITE)|DENY_NONE");
}

TEST(ShareModes, UnknownValuesAsText) {
  EXPECT_EQ(ModeText(0x47), "7(=READ)DENY_NONE");
  EXPECT_EQ(ModeText(0x0E), "14(=READ)DENY_MSDOS");
  EXPECT_EQ(ModeText(0x50), "OPEN_READ|80(=DENY_NONE)");
  EXPECT_EQ(ModeText(0x74), "4(=READ)112(=DENY_NONE)");
  EXPECT_EQ(ModeText(0x1A2), "OPEN_READWRITE|DENY_WRITE");
}

}  // namespace

}  // namespace klv
