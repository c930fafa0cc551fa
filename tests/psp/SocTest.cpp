// The SoC tables: which row a processor selects and what the EFS generation test accepts. The
// family and model fields are read through the window choice (RomTest) and the generation rows.
#include "../../src/psp/Soc.h"
#include "PspTestSupport.h"

namespace {

using SocIdentification = PspFixture;

TEST_F
(SocIdentification, TheFirstRowWhoseKeyMatchesIsSelected) {
  struct DescriptorCase {
    UINT32 Signature;
    int Row;  // -1: no descriptor
  } Rows[] = {
      {0x00A70FC2, 0},   // base model 0xC: the row whose key names it
      {0x00A70F82, 2},   // base model 0x8
      {0x00A70F41, 3},   // any other model of the family goes to the row without a base model
      {0x00B40F00, 1},
      {0x00890F83, 10},  // row 11's key has a base model but row 10 comes first
      {0x00C00F00, -1},  // unknown family
  };
  for (const DescriptorCase &C : Rows) {
    SelectSoc(C.Signature);
    const SocDescriptor *Found = nullptr;
    EXPECT_EQ(FindSocDescriptor(&Found) ? Found - kSocDescriptors : -1, C.Row) << std::hex << C.Signature;
  }
  for (UINT32 BaseModel = 0; BaseModel < 16; BaseModel++) {  // row 0 matches only base model 0xC
    SelectSoc(0x00A70F01 | BaseModel << 4);
    const SocDescriptor *Found = nullptr;
    ASSERT_TRUE(FindSocDescriptor(&Found));
    EXPECT_EQ(Found == &kSocDescriptors[0], BaseModel == 0xC) << BaseModel;
  }
}

using SocEfsGeneration = PspFixture;

TEST_F(SocEfsGeneration, GenerationFfRefusedFromFamily17Model30) {
  struct Case {
    UINT32 Signature;
    UINT8 Generation;
    bool Rejected;
  } Cases[] = {
      {0x00800F12, 0xFF, false},  // family 0x17 model 0x01
      {0x00830F10, 0xFF, true},   // family 0x17 model 0x31
      {0x00A70F41, 0xFF, true},   // family 0x19
      {0x00A70F41, 0xFE, false},
  };
  for (const Case &C : Cases) {
    SelectSoc(C.Signature);
    UINT8 Efs[60] = {};
    Efs[0x24] = C.Generation;
    EXPECT_EQ(EfsGenerationRejected(Efs) != FALSE, C.Rejected) << std::hex << C.Signature;
  }
}

}  // namespace
