// The receive path with messages no device sends: built here and handed to RecvMessageFn.
#include <gtest/gtest.h>

#include <filesystem>

#include "DeviceTestSupport.h"
#include "sdk/Messages.h"

namespace {

using namespace device;

class Dispatch : public ::testing::Test {
protected:
    void SetUp() override {
        annex = devtest::makeTempAnnex();
        recorder = std::make_shared<devtest::Recorder>();
        device = std::make_unique<devtest::TestDevice>(recorder);
    }
    void TearDown() override {
        device.reset();
        std::filesystem::remove_all(annex);
    }

    std::string annex;
    std::shared_ptr<devtest::Recorder> recorder;
    std::unique_ptr<devtest::TestDevice> device;
};

TEST_F(Dispatch, MissingMessagesAndUnknownReceiptKindsReportNothing) {
    device->RecvMessageFn(nullptr);
    SDK_NV::CMessage_Receipt receipt;
    receipt.setReceiptKind(24);
    device->RecvMessageFn(&receipt);
    receipt.setReceiptKind(-1);
    device->RecvMessageFn(&receipt);
    EXPECT_TRUE(recorder->events().empty());
}

// The mask's size comes from the message's rows and columns: a lattice shorter than they
// announce must not be read beyond its end.
TEST_F(Dispatch, ScannerCalibrationWithAShortLatticeHasNoMask) {
    SDK_NV::CMessage_CalibData m;
    m.setTrackerGrabIndex(SDK_NV::CALIB_STEP_SCANNER_CALIB);
    SDK_NV::tagCalibData data;
    data.nRows = 2;
    data.nCols = 3;
    data.vecLattice = {1, 0, 2, 0, 0, 1};
    m.setScannerCalib(data);
    device->RecvMessageFn(&m);
    data.nRows = 3000;
    data.nCols = 3000;
    m.setScannerCalib(data);
    device->RecvMessageFn(&m);

    const auto events = recorder->of("fastcali");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].scannerCalib.lattice,
              (std::vector<bool>{true, false, true, false, false, true}));
    EXPECT_EQ(events[1].scannerCalib.rows, 3000);
    EXPECT_TRUE(events[1].scannerCalib.lattice.empty());
}

}  // namespace
