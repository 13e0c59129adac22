#include "zrextractors/zrrecord.h"

namespace ZR {

ZRValue makeRecord(std::initializer_list<std::pair<const char*, ZRValue>> fields) {
  ZRValue record;
  record.arrayReserve(static_cast<int>(fields.size()));
  for (const auto& f : fields) {
    ZRValue pair;
    pair.arrayReserve(2);
    pair.arrayPush(ZRValue(f.first));
    pair.arrayPush(f.second);
    record.arrayPush(std::move(pair));
  }
  return record;
}

bool isRecord(const ZRValue& v) {
  if (!v.isArray()) return false;
  for (const ZRValue& e : v.arrayElements())
    if (!e.isArray() || e.getSize() != 2 || !e[0].isString()) return false;
  return true;
}

const ZRValue* recordField(const ZRValue& record, const std::string& field) {
  if (!isRecord(record)) return nullptr;
  for (const ZRValue& e : record.arrayElements())
    if (e[0].toStringRef() == field) return &e[1];
  return nullptr;
}

ZRValue floatArray(const float* values, int count) {
  ZRValue a;
  a.arrayReserve(count);
  for (int i = 0; i < count; ++i) a.arrayPush(ZRValue(values[i]));
  return a;
}

}  // namespace ZR
