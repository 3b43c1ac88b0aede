// SPDX-License-Identifier: GPL-2.0-or-later
// Reflection base for records that travel as JSON, and the field holder they write into.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

class JsonSerializerHelper {
public:
    JsonSerializerHelper() = default;

    void Write(const char* key, const std::vector<std::string>& field);
    void Read(const char* key, std::vector<std::string>& field);

    Json::Value m_value;
};

class JsonSerializerObject {
public:
    JsonSerializerObject() = default;
    virtual ~JsonSerializerObject();

    virtual void Serialize(JsonSerializerHelper& out);
    virtual void Deserialize(JsonSerializerHelper& in);
    virtual bool FromJsonString(const std::string& text);
    virtual bool FromJsonValue(const Json::Value& value);
    virtual bool ToJsonString(std::string& out, bool compact);
    virtual bool ToJsonValue(Json::Value& out);

    bool m_bLoaded = false;
    std::string m_strExtra;
    int64_t m_nExtra1 = 0;
    int64_t m_nExtra2 = 0;
};
