// The plug-in interface: the C header's layout (what a C plug-in compiled separately relies on),
// the suite MC_SP_Birth publishes, and the plug-in entry convention.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "ComputeFixture.h"
#include "host/HostOps.h"
#include "mc/MC_ComputeCache.h"
#include "mc/standalone/StandaloneHost.h"

using namespace computetest;

namespace {

static_assert(sizeof(void*) != 8 || sizeof(ZKGP_ComputeCacheCallbacks) == 32);
static_assert(offsetof(ZKGP_ComputeCacheCallbacks, GenerateKey) == 0 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheCallbacks, Compute) == 1 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheCallbacks, ApproximateSize) == 2 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheCallbacks, DisposeValue) == 3 * sizeof(void*));
static_assert(sizeof(ZKGP_GUID) == 16);
static_assert(sizeof(ZKGP_ComputeCacheSuite1) == 6 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheSuite1, ClassRegister) == 0 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheSuite1, ClassUnregister) == 1 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheSuite1, CheckoutOrCompute) == 2 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheSuite1, CheckoutIfCached) == 3 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheSuite1, ReceiptGetValue) == 4 * sizeof(void*));
static_assert(offsetof(ZKGP_ComputeCacheSuite1, ReceiptCheckin) == 5 * sizeof(void*));
static_assert(ZKGP_ComputeResult_OK == 0 && ZKGP_ComputeResult_NoSuchClass == 1 &&
              ZKGP_ComputeResult_InvalidReceipt == 2 && ZKGP_ComputeResult_BadParameter == 3 &&
              ZKGP_ComputeResult_NotAvailable == 22);

const ZKGP_ComputeCacheSuite1* AcquireSuite(int32_t major = 1, int32_t minor = 1) {
    const void* table = nullptr;
    if (U_SP_AcquireSuite("ZKGP Compute Cache", major, minor, &table) != 0) return nullptr;
    return static_cast<const ZKGP_ComputeCacheSuite1*>(table);
}

class SuitePublication : public mctest::ModuleTest {};

TEST_F(SuitePublication, BirthPublishesTheSixFunctionsUnderNameAndVersionOneOne) {
    EXPECT_EQ(AcquireSuite(), nullptr) << "nothing is published before MC_SP_Birth";
    MC_SP_Birth();
    const ZKGP_ComputeCacheSuite1* suite = AcquireSuite();
    ASSERT_NE(suite, nullptr);
    EXPECT_EQ(suite->ClassRegister, &MC_ComputeClassRegister);
    EXPECT_NE(suite->ClassUnregister, nullptr);
    EXPECT_NE(suite->CheckoutOrCompute, nullptr);
    EXPECT_NE(suite->CheckoutIfCached, nullptr);
    EXPECT_NE(suite->ReceiptGetValue, nullptr);
    EXPECT_NE(suite->ReceiptCheckin, nullptr);
    EXPECT_EQ(AcquireSuite(1, 2), nullptr);
    EXPECT_EQ(AcquireSuite(2, 1), nullptr);
}

TEST_F(SuitePublication, AFailedPublicationThrowsTheHostsError) {
    MC_SP_Birth();
    int code = 0;
    try {
        MC_SP_Birth();  // the registry refuses the same name and version twice
    } catch (int thrown) {
        code = thrown;
    }
    EXPECT_EQ(code, velacore::kStandaloneDuplicateError);
}

// A host whose suite registry refuses everything.
class RefusingHost : public mctest::RecordingHostServices {
  public:
    int AddSuite(std::string_view, int32_t, int32_t, int32_t, const void*) override { return 77; }
};

TEST(SuitePublicationFailure, TheHostsCodeIsThrownAsAnInt) {
    mctest::ScopedHostServices scoped(std::make_shared<RefusingHost>());
    int code = 0;
    try {
        MC_SP_Birth();
    } catch (int thrown) {
        code = thrown;
    }
    EXPECT_EQ(code, 77);
}

TEST_F(SuitePublication, PluginMainFailsWithTheHostsErrorWhenNoSuiteIsPublished) {
    const int result = HistogramPlugin::Loader().CallMain();
    EXPECT_NE(result, 0);
    EXPECT_EQ(result, velacore::kStandaloneGenericError);
    ZKGP_ComputeCacheCallbacks found{};
    EXPECT_EQ(MC_ComputeClassFind(kHistogramClass, &found), ZKGP_ComputeResult_NoSuchClass);
}

class PluginEntry : public ComputeTest {};

TEST_F(PluginEntry, PluginMainRegistersBothClassesThroughTheSuite) {
    ZKGP_ComputeCacheCallbacks plain{}, inverted{};
    ASSERT_EQ(MC_ComputeClassFind(kHistogramClass, &plain), 0);
    ASSERT_EQ(MC_ComputeClassFind(kInvertedHistogramClass, &inverted), 0);
    EXPECT_EQ(plain.GenerateKey, inverted.GenerateKey);
    EXPECT_NE(plain.Compute, inverted.Compute);
    EXPECT_EQ(plain.DisposeValue, inverted.DisposeValue);
    // The callbacks live in the plug-in, not in the test binary.
    EXPECT_EQ(plain.ApproximateSize(nullptr), sizeof(HistogramValue));
}

TEST_F(PluginEntry, TheEverydayRoundTripMatchesADirectComputation) {
    const HistogramParams p = Params(11, 200, 150, 128);
    uint32_t bins[256] = {};
    ASSERT_EQ(plugin().getHistogram(kHistogramClass, &p, bins), 0);
    const HistogramValue direct = Direct(p);
    EXPECT_EQ(std::memcmp(bins, direct.bins, sizeof bins), 0);
    uint64_t total = 0;
    for (uint32_t b : bins) total += b;
    EXPECT_EQ(total, 200u * 150u);
    // A second round trip is served from the cache.
    ASSERT_EQ(plugin().getHistogram(kHistogramClass, &p, bins), 0);
    EXPECT_EQ(Delta().computes, 1);
    EXPECT_EQ(Delta().keys, 2);
}

}  // namespace
