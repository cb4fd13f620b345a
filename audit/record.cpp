#include "audit/record.h"

#include <nlohmann/json.hpp>

#include "audit/text.h"

namespace corvo::audit {

namespace {

using Json = nlohmann::ordered_json;

struct ToJson {
    Json operator()(std::monostate /*nothing*/) const { return nullptr; }
    Json operator()(bool value) const { return value; }
    Json operator()(long long value) const { return value; }
    Json operator()(std::size_t value) const { return value; }
    Json operator()(const std::string& text) const { return validUtf8(text); }
    Json operator()(const std::vector<std::string>& texts) const {
        Json list = Json::array();
        for (const std::string& text : texts)
            list.push_back(validUtf8(text));
        return list;
    }
};

std::string textOf(const Json& value) {
    return printableJson(value.dump());
}

}  // namespace

Value valueUnlessEmpty(const std::string& text) {
    return text.empty() ? Value() : text;
}

std::string jsonOf(const Record& record) {
    Json object = Json::object();
    for (const auto& [name, value] : record)
        object[name] = std::visit(ToJson(), value);
    return textOf(object);
}

std::string jsonOf(const std::vector<std::string>& texts) {
    return textOf(ToJson()(texts));
}

}  // namespace corvo::audit
