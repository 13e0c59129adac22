// The bridge's catalog: the directory's modules and the events they declared, turned into the
// channels and services a viewer is offered, with their JSON Schemas.

#include "catalog.h"

#include <optional>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "recording.h"

namespace zr::bridge {

namespace {

using Json = nlohmann::ordered_json;

// A method's parameter or return type as a JSON Schema.
Json typeSchema(const std::string& type, const std::string& description) {
  Json s = Json::object();
  if (type == "int")
    s["type"] = "integer";
  else if (type == "float" || type == "double")
    s["type"] = "number";
  else if (type == "bool")
    s["type"] = "boolean";
  else if (type == "string")
    s["type"] = "string";
  else if (type.rfind("vector", 0) == 0 || type.rfind("array", 0) == 0)
    s["type"] = "array";
  if (!description.empty()) s["description"] = description;
  return s;
}

Json definition(const std::string& name, const Json& schema) {
  return {{"encoding", "json"},
          {"schemaName", name},
          {"schemaEncoding", "jsonschema"},
          {"schema", schema.dump()}};
}

// Forgets the entries of `known` whose key is no longer in `present`, saying their ids.
template <class Map, class Keys>
void forgetMissing(Map& known, const Keys& present, std::vector<std::uint32_t>& gone) {
  for (auto it = known.begin(); it != known.end();) {
    if (present.count(it->first)) {
      ++it;
      continue;
    }
    gone.push_back(it->second.id);
    it = known.erase(it);
  }
}

}  // namespace

Catalog::Catalog(const ZR::ZRBrokerOptions& directory, std::string hidden)
    : hidden_(std::move(hidden)), view_(std::make_unique<DirectoryView>(directory)) {}

Catalog::~Catalog() = default;

void Catalog::learnFields(Channel& c) {
  try {
    const ZR::ZRValue last = view_->call(ZR::kMemoryServiceName, "getData", {c.topic}, kAskLimit);
    c.schema = eventSchema(c.topic, &last);
    c.knowsFields = true;
  } catch (const ZR::ZRError&) {
    c.schema = eventSchema(c.topic, nullptr);  // never raised yet (or no answer): any object
  }
}

std::optional<std::vector<MethodInfo>> Catalog::overloadsOf(const std::string& module,
                                                            const std::string& method) {
  try {
    return parseMethodHelp(view_->call(module, "getMethodHelp", {method}, kAskLimit).toStringRef());
  } catch (const ZR::ZRError& e) {
    if (isTransportFailure(e))
      return std::nullopt;             // gone or stuck: not one call more to it in this round
    return std::vector<MethodInfo>{};  // a foreign module without help: callable all the same
  }
}

Catalog::Changes Catalog::refreshChannels() {
  view_->refresh();
  infos_.clear();
  Changes out;
  std::set<std::string> topics;
  for (const ZR::ZRDirectoryEntry& e : view_->entries()) {
    if (e.name.rfind(hidden_, 0) == 0) continue;
    try {
      infos_.emplace_back(e, view_->info(e));
    } catch (const ZR::ZRError&) {
      continue;  // its host stopped answering since the directory listed it
    }
    for (const std::string& event : infos_.back().second.events) {
      topics.insert(event);
      auto known = channels_.find(event);
      if (known != channels_.end()) {
        // Its fields, once the event was raised: the same channel, advertised again.
        if (!known->second.knowsFields) {
          learnFields(known->second);
          if (known->second.knowsFields) out.added.push_back(known->second);
        }
        continue;
      }
      Channel c{nextChannel_++, event, e.name, "", false};
      learnFields(c);
      channels_[event] = c;
      out.added.push_back(c);
    }
  }
  forgetMissing(channels_, topics, out.removed);
  return out;
}

Catalog::Changes Catalog::refreshServices() {
  Changes out;
  std::set<std::pair<std::string, std::string>> methods;
  for (const auto& [e, info] : infos_) {
    bool answers = true;
    for (const std::string& method : info.methods) {
      const auto key = std::make_pair(e.name, method);
      methods.insert(key);
      auto known = services_.find(key);
      // A module that came back on another host is asked again: it may be another version.
      if (!answers || (known != services_.end() && known->second.endpoint == e.endpoint)) continue;
      auto overloads = overloadsOf(e.name, method);
      if (!overloads) {
        answers = false;  // asked again in the next round, while it is listed
        continue;
      }
      if (known != services_.end()) out.servicesRemoved.push_back(known->second.id);
      Service s{nextService_++, e.name, method, e.endpoint, std::move(*overloads)};
      services_[key] = s;
      out.servicesAdded.push_back(s);
    }
  }
  forgetMissing(services_, methods, out.servicesRemoved);
  return out;
}

std::string advertiseJson(const std::vector<Channel>& channels) {
  Json list = Json::array();
  for (const Channel& c : channels)
    list.push_back({{"id", c.id},
                    {"topic", c.topic},
                    {"encoding", "json"},
                    {"schemaName", c.topic},
                    {"schema", c.schema},
                    {"schemaEncoding", "jsonschema"}});
  return Json{{"op", "advertise"}, {"channels", list}}.dump();
}

std::string advertiseServicesJson(const std::vector<Service>& services) {
  Json list = Json::array();
  for (const Service& s : services) {
    const std::string name = s.module + "/" + s.method;
    Json request = {{"type", "object"}, {"properties", Json::object()}};
    Json response = Json::object();
    std::string description;
    for (const MethodInfo& o : s.overloads) {
      description += (description.empty() ? "" : "\n") + o.signature +
                     (o.description.empty() ? "" : ": " + o.description);
      for (const MethodInfo::Parameter& p : o.parameters)
        if (!p.name.empty() && !request["properties"].contains(p.name))
          request["properties"][p.name] = typeSchema(p.type, p.documentation);
      if (response.empty() && o.returnType != "void")
        response = typeSchema(o.returnType, o.returnDocumentation);
    }
    request["description"] = description;
    list.push_back({{"id", s.id},
                    {"name", name},
                    {"type", name},
                    {"description", description},
                    {"request", definition(name + ".request", request)},
                    {"response", definition(name + ".response", response)}});
  }
  return Json{{"op", "advertiseServices"}, {"services", list}}.dump();
}

std::string removalJson(const char* op, const char* field, const std::vector<std::uint32_t>& ids) {
  return Json{{"op", op}, {field, ids}}.dump();
}

std::vector<ZR::ZRValue> requestArguments(const Service& s, const std::string& json) {
  const Json j = Json::parse(json.empty() ? "[]" : json, nullptr, false);
  if (j.is_discarded()) throw std::runtime_error("the request is no JSON");
  std::vector<ZR::ZRValue> args;
  if (j.is_array()) {
    for (const Json& a : j) args.push_back(parseArgument(a.dump()));
  } else if (j.is_object()) {
    // By name: the overload whose parameters the request names, all of them.
    const MethodInfo* chosen = nullptr;
    for (const MethodInfo& o : s.overloads) {
      std::size_t named = 0;
      for (const MethodInfo::Parameter& p : o.parameters) named += j.contains(p.name);
      if (named == o.parameters.size() && named == j.size()) chosen = &o;
    }
    if (!chosen) {
      std::string expected;
      for (const MethodInfo& o : s.overloads)
        expected += (expected.empty() ? "" : " or ") + o.signature;
      throw std::runtime_error("the request's fields match no parameters of " + s.module + "/" +
                               s.method + (expected.empty() ? "" : " (" + expected + ")"));
    }
    for (const MethodInfo::Parameter& p : chosen->parameters)
      args.push_back(parseArgument(j[p.name].dump()));
  } else if (!j.is_null()) {
    args.push_back(parseArgument(j.dump()));
  }
  fitArguments(s.overloads, args);
  return args;
}

}  // namespace zr::bridge
