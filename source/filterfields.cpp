// filterfields.cpp - reading and writing a settings field by its row.
#include "filterfields.hpp"

#include <cstring>

namespace bfm {

namespace {

template <class T>
T Load(const void* record, uint32_t offset) {
    T value;
    std::memcpy(&value, static_cast<const std::byte*>(record) + offset, sizeof value);
    return value;
}

template <class T>
void Store(void* record, uint32_t offset, T value) {
    std::memcpy(static_cast<std::byte*>(record) + offset, &value, sizeof value);
}

}  // namespace

double ReadField(const void* record, const SettingsField& field) {
    switch (field.type) {
        case FieldType::U8: return Load<uint8_t>(record, field.offset);
        case FieldType::U32: return Load<uint32_t>(record, field.offset);
        case FieldType::I32: return Load<int32_t>(record, field.offset);
        case FieldType::F32: return Load<float>(record, field.offset);
        case FieldType::F64: return Load<double>(record, field.offset);
    }
    return 0;
}

void WriteField(void* record, const SettingsField& field, double value) {
    switch (field.type) {
        case FieldType::U8: Store(record, field.offset, static_cast<uint8_t>(value)); break;
        case FieldType::U32: Store(record, field.offset, static_cast<uint32_t>(value)); break;
        case FieldType::I32: Store(record, field.offset, static_cast<int32_t>(value)); break;
        case FieldType::F32: Store(record, field.offset, static_cast<float>(value)); break;
        case FieldType::F64: Store(record, field.offset, value); break;
    }
}

double AsFieldType(double value, FieldType type) {
    switch (type) {
        case FieldType::U8: return static_cast<uint8_t>(value);
        case FieldType::U32: return static_cast<uint32_t>(value);
        case FieldType::I32: return static_cast<int32_t>(value);
        case FieldType::F32: return static_cast<float>(value);
        case FieldType::F64: return value;
    }
    return 0;
}

}  // namespace bfm
