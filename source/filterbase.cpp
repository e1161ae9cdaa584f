// filterbase.cpp - settings records and blobs read and written from their
// rows.
#include "filterbase.hpp"

#include <cstring>

namespace bfm {

namespace {

constexpr std::size_t kHeaderSize = sizeof(KPX_BLOB_HEADER);

template <class T>
T Load(const std::byte* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

template <class T>
void Store(std::byte* at, T value) {
    std::memcpy(at, &value, sizeof value);
}

// NaN lies in no range.
bool InRange(const SettingsField& field, double value) {
    switch (field.range) {
        case BlobRange::Inclusive: return value >= field.min && value <= field.max;
        case BlobRange::Exclusive: return value > field.min && value < field.max;
        case BlobRange::Any: return true;
        case BlobRange::NotRead: return false;
    }
    return false;
}

}  // namespace

void* CreateSettings(const SettingsLayout& layout) {
    auto* record = static_cast<std::byte*>(kpx::HostAlloc(layout.size));
    if (!record) return nullptr;
    std::memset(record, 0, layout.size);
    Store(record, layout.code);
    for (const SettingsField& field : layout.fields)
        if (HoldsField(field)) WriteField(record, field, field.initial);
    return record;
}

int32_t FreeSettings(void* settings) {
    kpx::HostFree(settings);
    return KPX_OK;
}

bool HasCode(const void* settings, uint32_t code) {
    return settings && Load<uint32_t>(static_cast<const std::byte*>(settings)) == code;
}

int32_t CheckCode(const void* settings, uint32_t code) {
    return HasCode(settings, code) ? KPX_OK : KPX_NOT_MINE;
}

void* SettingsToBlob(const void* settings, uint32_t size, KpxBlobAllocator allocate) {
    const std::size_t total = kHeaderSize + size;
    auto* blob = static_cast<std::byte*>(allocate ? allocate(total) : nullptr);
    if (!blob) return nullptr;
    std::memset(blob, 0, total);
    const KPX_BLOB_HEADER header{KPX_BLOB_MAGIC, static_cast<uint32_t>(total), 0};
    std::memcpy(blob, &header, kHeaderSize);
    if (settings) std::memcpy(blob + kHeaderSize, settings, size);
    return blob;
}

bool BlobHasCode(const void* blob, uint32_t code) {
    if (!blob) return false;
    const auto* bytes = static_cast<const std::byte*>(blob);
    return Load<uint32_t>(bytes) == KPX_BLOB_MAGIC && Load<uint32_t>(bytes + kHeaderSize) == code;
}

void RestoreFields(const SettingsLayout& layout, const void* blob, void* settings) {
    const auto* bytes = static_cast<const std::byte*>(blob);
    const std::size_t stored = Load<uint32_t>(bytes + offsetof(KPX_BLOB_HEADER, size));
    const std::byte* record = bytes + kHeaderSize;
    for (const SettingsField& field : layout.fields) {
        if (!HoldsField(field)) continue;
        const std::size_t width = FieldWidth(field.type);
        // A field beyond the stored size was not stored: its default stays.
        if (kHeaderSize + field.offset + width > stored) continue;
        if (!InRange(field, ReadField(record, field))) continue;
        std::memcpy(static_cast<std::byte*>(settings) + field.offset, record + field.offset, width);
    }
}

void* SettingsFromBlob(const SettingsLayout& layout, const void* blob, uint32_t older_code) {
    if (!BlobHasCode(blob, layout.code) && !(older_code != 0 && BlobHasCode(blob, older_code)))
        return nullptr;
    void* settings = CreateSettings(layout);
    if (settings) RestoreFields(layout, blob, settings);
    return settings;
}

}  // namespace bfm
