// Reading JSON strictly.
#include "base/json.h"

#include "tests/world.h"

namespace {

TEST(Json, DocumentsAreReadWhole) {
    std::string fault;
    const auto value =
        ParseJson(R"( {"text":"a\"\\\/\n\u00e9\ud83d\ude00","none":null,"yes":true,"no":false,)"
                  R"("n":-12,"x":1.5e+3,"list":[[],{},[1,2]]} )",
                  fault);
    ASSERT_TRUE(value) << fault;
    EXPECT_EQ(value->TextOf("text"), "a\"\\/\n\xc3\xa9\xf0\x9f\x98\x80");
    EXPECT_EQ(value->NumberOf("n"), -12);
    EXPECT_EQ(value->Find("x")->text, "1.5e+3");
    EXPECT_FALSE(value->NumberOf("x") || value->NumberOf("text") || value->NumberOf("absent"));
    EXPECT_TRUE(value->Find("yes")->flag && !value->Find("no")->flag);
    EXPECT_EQ(value->Find("list")->elements.at(2).elements.size(), 2U);
    EXPECT_EQ(ParseJson(JsonQuoted("a\"\\\x01\xff\t\xe2\x80\xa8"), fault)->text,
              "a\"\\\x01\xef\xbf\xbd\t\xe2\x80\xa8");
}

TEST(Json, WhatIsNotExactlyJsonIsRefused) {
    const struct {
        std::string text;
        std::string fault;
    } cases[] = {
        {"", "a value is missing at byte 1"},
        {"{} x", "something follows the document at byte 4"},
        {"{\"a\":1,}", "a member's name is missing at byte 8"},
        {"{\"a\" 1}", "\":\" is missing at byte 6"},
        {"{\"a\":1 \"b\":2}", "\",\" or \"}\" is missing at byte 8"},
        {"{\"a\":1,\"a\":2}", "a member is there twice at byte 11"},
        {"[1,]", "a value is missing at byte 4"},
        {"[1", "\",\" or \"]\" is missing at byte 3"},
        {"[[[[[[[[[1]]]]]]]]]", "too deep at byte 9"},
        {"01", "something follows the document at byte 2"},
        {"1.", "the number is not sound at byte 3"},
        {"-", "the number is not sound at byte 2"},
        {"\"a", "a text does not end at byte 3"},
        {"\"\\", "an unknown escape at byte 3"},
        {"\"\\q\"", "an unknown escape at byte 3"},
        {"\"\\u12g4\"", "four digits are missing at byte 4"},
        {"\"\\u0000\"", "a NUL in a text at byte 8"},
        {"\"\\ud800x\"", "half of a character at byte 8"},
        {"\"\\udc00\"", "half of a character at byte 8"},
        {"\"\n\"", "a control character at byte 2"},
        {"\"\xff\"", "not UTF-8 at byte 2"},
        {std::string("nul\0", 4), "a value is missing at byte 1"},
        {"True", "a value is missing at byte 1"},
    };
    for (const auto& [text, expected] : cases) {
        std::string fault;
        EXPECT_FALSE(ParseJson(text, fault)) << text;
        EXPECT_EQ(fault, expected) << text;
    }
}

}  // namespace
