// SPDX-License-Identifier: GPL-2.0-or-later
#include "JsonSerializer.h"

#include "CppJson.h"

void JsonSerializerHelper::Write(const char* key, const std::vector<std::string>& field)
{
    try {
        if (field.empty()) {
            m_value[key] = Json::Value(Json::arrayValue);
            return;
        }
        Json::Value array(Json::arrayValue);
        for (const std::string& item : field) {
            array.append(Json::Value(item));
        }
        m_value[key] = array;
    } catch (...) {
        // The record is then written without this field; the caller sees the text it gets.
    }
}

void JsonSerializerHelper::Read(const char* key, std::vector<std::string>& field)
{
    try {
        if (m_value.isNull() || !m_value.isObject()) {
            return;
        }
        const Json::Value& array = m_value[key];
        if (!array.isArray()) {
            return;
        }
        field.clear();
        field.reserve(array.size());
        for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
            const Json::Value& item = array[i];
            field.push_back(item.isString() ? item.asString() : std::string());
        }
    } catch (...) {
    }
}

JsonSerializerObject::~JsonSerializerObject() = default;

void JsonSerializerObject::Serialize(JsonSerializerHelper&) {}

void JsonSerializerObject::Deserialize(JsonSerializerHelper&) {}

bool JsonSerializerObject::FromJsonString(const std::string& text)
{
    try {
        if (text.empty()) {
            return false;
        }
        JsonSerializerHelper holder;
        if (!CppJson::LoadJsonString(text, holder.m_value) || holder.m_value.isNull()) {
            return false;
        }
        Deserialize(holder);
        m_bLoaded = true;
        return true;
    } catch (...) {
        return false;
    }
}

bool JsonSerializerObject::FromJsonValue(const Json::Value& value)
{
    try {
        if (value.isNull()) {
            return false;
        }
        JsonSerializerHelper holder;
        holder.m_value = value;
        Deserialize(holder);
        m_bLoaded = true;
        return true;
    } catch (...) {
        return false;
    }
}

bool JsonSerializerObject::ToJsonString(std::string& out, bool compact)
{
    try {
        JsonSerializerHelper holder;
        Serialize(holder);
        return CppJson::WriteJsonToString(holder.m_value, out, compact);
    } catch (...) {
        return false;
    }
}

bool JsonSerializerObject::ToJsonValue(Json::Value& out)
{
    try {
        JsonSerializerHelper holder;
        Serialize(holder);
        out = holder.m_value;
        return true;
    } catch (...) {
        return false;
    }
}
