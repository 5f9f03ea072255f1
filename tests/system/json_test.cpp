// The tests' reader of JSON: what it takes for equal, and what it does not.
#include <tests/system/support/json.h>

#include <gtest/gtest.h>

using velia::system_test::Json;

TEST(JsonReader, ReadsEveryKindOfValue) {
    const auto value = Json::parse(R"({"b":[1,-2.5,"x\n",null,true,[],{}],"a":""})");
    EXPECT_EQ(value["a"], "");
    EXPECT_EQ(value["b"][0], 1);
    EXPECT_EQ(value["b"][1].number(), -2.5);
    EXPECT_EQ(value["b"][2].text(), "x\n");
    EXPECT_EQ(value["b"][3], nullptr);
    EXPECT_EQ(value["b"].size(), 7u);
    EXPECT_EQ(value.dump(), R"({"a":"","b":[1,-2.5,"x\n",null,true,[],{}]})");
}

TEST(JsonReader, AnObjectsMembersHaveNoOrder) {
    EXPECT_EQ(Json::parse(R"({"a":1,"b":["x"]})"), Json::object({{"b", Json::list({"x"})}, {"a", 1}}));
    EXPECT_NE(Json::parse(R"({"a":1,"b":2})"), Json::object({{"a", 1}, {"c", 2}}));
    EXPECT_NE(Json::parse(R"({"a":1})"), Json::object({{"a", 1}, {"b", 2}}));
    EXPECT_NE(Json::parse(R"([1,2])"), Json::list({2, 1}));
}

TEST(JsonReader, KindsAreTold) {
    EXPECT_NE(Json::parse("\"1\""), 1);
    EXPECT_NE(Json::parse("null"), "null");
    EXPECT_NE(Json::parse("[]"), Json::object({}));
}

TEST(JsonReader, WhatIsNotThereOrNoJsonEqualsNothing) {
    EXPECT_FALSE(Json::parse("{").is_valid());
    EXPECT_FALSE(Json::parse("").is_valid());
    EXPECT_FALSE(Json::parse("{}")["a"].is_valid());
    EXPECT_FALSE(Json::parse("[]")[0].is_valid());
    EXPECT_NE(Json::parse("{}")["a"], nullptr);
    EXPECT_NE(Json::parse("{"), Json::parse("{"));
}
