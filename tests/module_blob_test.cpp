// Settings records made from their field tables, and the settings blob the
// host stores.
#include "filterbase.hpp"
#include "module_support.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

namespace {

using bfm::BlobRange;
using bfm::FieldType;

// A record with a field of every type and every kind of range.
struct Sample {
    uint32_t code;
    uint32_t mode;
    float strength;
    uint8_t flag;
    uint8_t reserved[3];
    double gamma;
    int32_t offset;
    uint32_t kept;
    double prepared;  // derived data: in no field
};

// offset, type, default, min, max, range
constexpr bfm::SettingsField kSampleFields[] = {
    {offsetof(Sample, mode), FieldType::U32, 1, 1, 2},
    {offsetof(Sample, strength), FieldType::F32, 1, 0, 1},
    {offsetof(Sample, flag), FieldType::U8, 1, 0, 0, BlobRange::Any},
    {offsetof(Sample, gamma), FieldType::F64, 1, 0.1, 10, BlobRange::Exclusive},
    {offsetof(Sample, offset), FieldType::I32, -5, -100, 100},
    {offsetof(Sample, kept), FieldType::U32, 3, 0, 0, BlobRange::NotRead},
};
constexpr bfm::SettingsLayout kSample{bfm::FourCC("smpl"), sizeof(Sample), kSampleFields};
static_assert(bfm::FieldsFit(kSample));

constexpr Sample kDefaults{bfm::FourCC("smpl"), 1, 1.0f, 1, {}, 1.0, -5, 3, 0.0};
constexpr Sample kStored{bfm::FourCC("smpl"), 2, 0.25f, 0, {}, 2.5, 100, 9, 7.0};

using Blob = std::unique_ptr<std::byte, decltype([](std::byte* b) { std::free(b); })>;
void* Allocate(size_t size) {
    return std::malloc(size);
}
void* Refuse(size_t) {
    return nullptr;
}
Blob ToBlob(const void* settings, uint32_t size = sizeof(Sample)) {
    return Blob(static_cast<std::byte*>(bfm::SettingsToBlob(settings, size, &Allocate)));
}

// A record from the host, freed when the test ends.
struct Record {
    void* settings;
    explicit Record(void* s) : settings(s) {}
    ~Record() { bfm::FreeSettings(settings); }
    const Sample& sample() const { return *static_cast<const Sample*>(settings); }
};

void ExpectSame(const Sample& actual, const Sample& expected) {
    EXPECT_EQ(actual.code, expected.code);
    EXPECT_EQ(actual.mode, expected.mode);
    EXPECT_EQ(actual.strength, expected.strength);
    EXPECT_EQ(actual.flag, expected.flag);
    EXPECT_EQ(std::memcmp(actual.reserved, "\0\0\0", 3), 0);
    EXPECT_EQ(actual.gamma, expected.gamma);
    EXPECT_EQ(actual.offset, expected.offset);
    EXPECT_EQ(actual.kept, expected.kept);
    EXPECT_EQ(actual.prepared, expected.prepared);
}

class SettingsBlob : public testing::Test {
protected:
    void SetUp() override { bf::test::StartedModule(); }  // records come from the host
};

// ---- records and blobs from a field table ----------------------------------------------

TEST_F(SettingsBlob, DefaultsFillEveryFieldAndZeroTheRest) {
    Record record(bfm::CreateSettings(kSample));
    ASSERT_NE(record.settings, nullptr);
    ExpectSame(record.sample(), kDefaults);
}

// Each valid field is taken; prepared data and unread fields never are, and a
// value outside its range keeps its default while the others are taken.
TEST_F(SettingsBlob, RoundTripTakesOnlyValidReadFields) {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* what;
        void (*spoil)(Sample&);
        std::size_t offset, size;  // the spoiled field, which keeps its default
    };
#define FIELD(name) offsetof(Sample, name), sizeof(Sample::name)
    const Case cases[] = {
        {"all valid", [](Sample&) {}, 0, 0},
        {"mode 0", [](Sample& s) { s.mode = 0; }, FIELD(mode)},
        {"mode 3", [](Sample& s) { s.mode = 3; }, FIELD(mode)},
        {"strength below", [](Sample& s) { s.strength = -0.01f; }, FIELD(strength)},
        {"strength above", [](Sample& s) { s.strength = 1.5f; }, FIELD(strength)},
        {"strength NaN", [](Sample& s) { s.strength = float(kNaN); }, FIELD(strength)},
        {"gamma at the lower bound", [](Sample& s) { s.gamma = 0.1; }, FIELD(gamma)},
        {"gamma at the upper bound", [](Sample& s) { s.gamma = 10; }, FIELD(gamma)},
        {"gamma NaN", [](Sample& s) { s.gamma = kNaN; }, FIELD(gamma)},
        {"offset below", [](Sample& s) { s.offset = -101; }, FIELD(offset)},
    };
#undef FIELD
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Sample stored = kStored;
        c.spoil(stored);
        const Blob blob = ToBlob(&stored);
        Record restored(bfm::SettingsFromBlob(kSample, blob.get()));
        ASSERT_NE(restored.settings, nullptr);
        Sample expected = kStored;
        expected.kept = kDefaults.kept;
        expected.prepared = 0.0;
        std::memcpy(reinterpret_cast<std::byte*>(&expected) + c.offset,
                    reinterpret_cast<const std::byte*>(&kDefaults) + c.offset, c.size);
        ExpectSame(restored.sample(), expected);
    }
}

TEST_F(SettingsBlob, FieldsBeyondTheStoredSizeKeepTheirDefaults) {
    const Blob blob = ToBlob(&kStored);
    const uint32_t short_size = 16 + offsetof(Sample, gamma);
    std::memcpy(blob.get() + 4, &short_size, sizeof short_size);
    Record restored(bfm::SettingsFromBlob(kSample, blob.get()));
    ASSERT_NE(restored.settings, nullptr);
    EXPECT_EQ(restored.sample().mode, kStored.mode);
    EXPECT_EQ(restored.sample().gamma, kDefaults.gamma);
    EXPECT_EQ(restored.sample().offset, kDefaults.offset);
}

TEST_F(SettingsBlob, ForeignEmptyOrUnallocatableBlobsGiveNothing) {
    const Blob blob = ToBlob(&kStored);
    EXPECT_EQ(bfm::SettingsFromBlob(kSample, nullptr), nullptr);
    blob.get()[0] = std::byte{'F'};  // "Fflt"
    EXPECT_EQ(bfm::SettingsFromBlob(kSample, blob.get()), nullptr);
    blob.get()[0] = std::byte{'f'};
    blob.get()[16] = std::byte{'S'};  // another filter's code
    EXPECT_EQ(bfm::SettingsFromBlob(kSample, blob.get()), nullptr);

    // Without settings the blob is a full-size header that nothing accepts.
    const Blob empty = ToBlob(nullptr);
    ASSERT_NE(empty, nullptr);
    KPX_BLOB_HEADER header;
    std::memcpy(&header, empty.get(), sizeof header);
    EXPECT_EQ(header.magic, KPX_BLOB_MAGIC);
    EXPECT_EQ(header.size, 16 + sizeof(Sample));
    EXPECT_EQ(bfm::SettingsFromBlob(kSample, empty.get()), nullptr);

    EXPECT_EQ(bfm::SettingsToBlob(&kStored, sizeof kStored, &Refuse), nullptr);
    blob.get()[16] = std::byte{'s'};
    bf::Host::Get().set_faults({.refuse_alloc = 1});
    EXPECT_EQ(bfm::CreateSettings(kSample), nullptr);
    bf::Host::Get().set_faults({.refuse_alloc = 1});
    EXPECT_EQ(bfm::SettingsFromBlob(kSample, blob.get()), nullptr);
    bf::Host::Get().set_faults({});
}

// ---- Invert's record -------------------------------------------------------------------

TEST_F(SettingsBlob, InvertStoresItsEightBytesAndRestoresBorderModeOne) {
    const BitmapFilterDescriptor& invert = bf::test::FilterRecord("invert");
    void* settings = invert.CreateDefaultSettings(nullptr, nullptr);
    ASSERT_NE(settings, nullptr);
    const uint32_t defaults[2] = {bfm::FourCC("nvrt"), 1};
    EXPECT_EQ(std::memcmp(settings, defaults, 8), 0);

    static_cast<uint32_t*>(settings)[1] = 2;
    const Blob blob(static_cast<std::byte*>(invert.SettingsToBlob(nullptr, settings, &Allocate)));
    invert.FreeSettings(nullptr, settings);
    ASSERT_NE(blob, nullptr);
    const uint32_t expected[6] = {KPX_BLOB_MAGIC, 24, 0, 0, bfm::FourCC("nvrt"), 2};
    EXPECT_EQ(std::memcmp(blob.get(), expected, sizeof expected), 0);

    // The stored border mode is never read back, valid or not.
    void* restored = invert.SettingsFromBlob(nullptr, blob.get());
    ASSERT_NE(restored, nullptr);
    EXPECT_EQ(std::memcmp(restored, defaults, 8), 0);
    invert.FreeSettings(nullptr, restored);

    EXPECT_EQ(invert.SettingsToBlob(nullptr, nullptr, &Refuse), nullptr);
    const Blob header_only(
        static_cast<std::byte*>(invert.SettingsToBlob(nullptr, nullptr, &Allocate)));
    ASSERT_NE(header_only, nullptr);
    EXPECT_EQ(std::memcmp(header_only.get(), expected, 8), 0);
}

TEST_F(SettingsBlob, InvertRefusesAnotherFiltersBlobAndSettings) {
    const BitmapFilterDescriptor& invert = bf::test::FilterRecord("invert");
    const uint32_t gamma_blob[6] = {KPX_BLOB_MAGIC, 24, 0, 0, bfm::FourCC("gama"), 1};
    EXPECT_EQ(invert.SettingsFromBlob(nullptr, gamma_blob), nullptr);
    const uint32_t bad_magic[6] = {bfm::FourCC("fflu"), 24, 0, 0, bfm::FourCC("nvrt"), 1};
    EXPECT_EQ(invert.SettingsFromBlob(nullptr, bad_magic), nullptr);

    uint32_t gamma_settings[2] = {bfm::FourCC("gama"), 1};
    EXPECT_EQ(invert.PrepareApply(nullptr, nullptr, gamma_settings), KPX_NOT_MINE);
    EXPECT_EQ(invert.FinishApply(nullptr, nullptr, gamma_settings), KPX_NOT_MINE);
    EXPECT_EQ(invert.PrepareApply(nullptr, nullptr, nullptr), KPX_NOT_MINE);
}

}  // namespace
