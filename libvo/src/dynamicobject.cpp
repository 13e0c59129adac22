#include "vo/dynamicobject.h"

#include <atomic>

namespace vo {

namespace {
std::atomic<unsigned int> gNextUid{1};
}

std::string MetaMethod::readableSignature() const {
  return name + sig::readableParameters(parametersSignature) + " -> " +
         sig::typeName(returnSignature);
}

DynamicObject::DynamicObject() = default;
DynamicObject::~DynamicObject() = default;

unsigned int DynamicObject::addMethod(const MetaMethod& meta, AnyFunction function, int callType) {
  if (meta.name.empty()) throw ZR::ZRError(objectName(), "addMethod", "a method needs a name");
  if (!function.isValid())
    throw ZR::ZRError(objectName(), meta.name, "cannot publish a method without a function");
  if (isSealed())
    throw ZR::ZRError(objectName(), meta.name,
                      "methods are registered while the object is built, before it can be called");
  auto m = std::make_unique<Method>(Method{meta, std::move(function), callType});
  m->meta.uid = gNextUid.fetch_add(1, std::memory_order_relaxed);
  m->meta.parametersSignature = m->function.parametersSignature();
  m->meta.returnSignature = m->function.resultSignature();
  const Method* raw = m.get();
  methods_.push_back(std::move(m));
  byName_[std::string_view(raw->meta.name)].push_back(raw);
  return raw->meta.uid;
}

const DynamicObject::Method* DynamicObject::select(std::string_view name, const ZR::ZRValue* args,
                                                   std::size_t count) const {
  auto it = byName_.find(name);
  if (it == byName_.end()) {
    throw ZR::ZRError(objectName(), std::string(name),
                      "no method \"" + std::string(name) + "\" on this module");
  }
  const Method* best = nullptr;
  int bestScore = -1;
  for (const Method* m : it->second) {
    const std::string& params = m->meta.parametersSignature;
    if (params.size() != count) continue;
    int score = 0;
    bool fits = true;
    for (std::size_t i = 0; i < count && fits; ++i) {
      const int s = sig::matchScore(params[i], args[i]);
      fits = s > 0;
      score += s;
    }
    if (fits && score > bestScore) {
      best = m;
      bestScore = score;
    }
  }
  if (!best) {
    std::string given;
    for (std::size_t i = 0; i < count; ++i) given += sig::codeOf(args[i]);
    std::string text = "no overload of " + std::string(name) + " takes " +
                       sig::readableParameters(given) + "; it has ";
    bool first = true;
    for (const Method* m : it->second) {
      if (!first) text += ", ";
      first = false;
      text += m->meta.name + sig::readableParameters(m->meta.parametersSignature);
    }
    throw ZR::ZRError(objectName(), std::string(name), text);
  }
  return best;
}

namespace {
// The calls running on this thread, innermost first: a frame lives on the stack of metaCall.
struct CallFrame {
  const ZR::ZRValue* args;
  std::size_t count;
  const CallFrame* outer;
};
__attribute__((tls_model("initial-exec"))) thread_local const CallFrame* tlInnermostCall = nullptr;

class CallFrameScope {
 public:
  CallFrameScope(const ZR::ZRValue* args, std::size_t count)
      : frame_{args, count, tlInnermostCall} {
    tlInnermostCall = &frame_;
  }
  ~CallFrameScope() { tlInnermostCall = frame_.outer; }
  CallFrameScope(const CallFrameScope&) = delete;
  CallFrameScope& operator=(const CallFrameScope&) = delete;

 private:
  CallFrame frame_;
};
}  // namespace

ZR::ZRValue DynamicObject::metaCall(std::string_view name, const ZR::ZRValue* args,
                                    std::size_t count) const {
  // Every call type runs here, on the caller's thread, in this process; other call types exist
  // for transports that cross processes.
  const Method* method = select(name, args, count);
  const CallFrameScope frame(args, count);
  return method->function.call(args, count);
}

const ZR::ZRValue* DynamicObject::findCallBinary(const void* data) {
  if (!data) return nullptr;
  for (const CallFrame* f = tlInnermostCall; f; f = f->outer) {
    for (std::size_t i = 0; i < f->count; ++i) {
      if (f->args[i].isBinary() && f->args[i].GetBinary() == data) return &f->args[i];
    }
  }
  return nullptr;
}

std::vector<MetaMethod> DynamicObject::metaMethods() const {
  std::vector<MetaMethod> out;
  out.reserve(methods_.size());
  for (const auto& m : methods_) out.push_back(m->meta);
  return out;
}

bool DynamicObject::hasMethod(std::string_view name) const {
  return byName_.count(name) != 0;
}

namespace sig {

const char* typeName(char code) {
  switch (code) {
    case Void:
      return "void";
    case Bool:
      return "bool";
    case Int:
      return "int";
    case Float:
      return "float";
    case String:
      return "string";
    case Value:
      return "ZRValue";
    case StringList:
      return "list of strings";
    case Object:
      return "object";
  }
  return "unknown";
}

std::string readableParameters(const std::string& codes) {
  std::string out = "(";
  for (std::size_t i = 0; i < codes.size(); ++i) {
    if (i) out += ", ";
    out += typeName(codes[i]);
  }
  return out + ")";
}

char codeOf(const ZR::ZRValue& v) {
  switch (v.getType()) {
    case ZR::ZRValue::TypeBool:
      return Bool;
    case ZR::ZRValue::TypeInt:
      return Int;
    case ZR::ZRValue::TypeFloat:
      return Float;
    case ZR::ZRValue::TypeString:
      return String;
    case ZR::ZRValue::TypeArray: {
      for (const ZR::ZRValue& e : v.arrayElements())
        if (!e.isString()) return Value;
      return StringList;
    }
    default:
      return Value;
  }
}

int matchScore(char parameter, const ZR::ZRValue& argument) {
  switch (parameter) {
    case Value:
      return 1;
    case Float:
      if (argument.isFloat()) return 2;
      return argument.isInt() ? 1 : 0;
    case StringList:
      return codeOf(argument) == StringList ? 2 : 0;
    default:
      return codeOf(argument) == parameter ? 2 : 0;
  }
}

}  // namespace sig
}  // namespace vo
