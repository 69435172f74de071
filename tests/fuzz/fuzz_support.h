/*
 * fuzz_support: what the fuzzers share.
 *
 * A fuzzer compares the code with a second, simple implementation of the same contract, its model; a
 * difference ends the process, which libFuzzer reports with the input that led to it.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kolmo::testing
{

using Lines = std::vector<std::string>;

/* Ends the process unless code and model agree; `what` says on what they had to. */
void require(bool agreed, const char *what);

/* The two texts are the same. */
void require_same(const std::string &code, const std::string &model, const char *what);

/* The same for a text of C's, null as "NULL" but unlike every text that could be meant by that. */
std::string shown(const char *text);

/* From here on what is logged is kept as "priority text"; take_log hands it out. */
void record_log();
Lines take_log();

/* A file in memory with a path, for code that opens its files itself. */
class MemoryFile
{
public:
    explicit MemoryFile(const char *name);
    [[nodiscard]] const char *path() const { return path_.c_str(); }
    [[nodiscard]] int descriptor() const { return descriptor_; }

    void write(const std::string &content) const;

    /* What was written since the latest take, from the start. */
    [[nodiscard]] std::string take() const;

private:
    int descriptor_;
    std::string path_;
};

/* While it lives, standard output and standard error lead to memory; the sanitizers' reports do not. */
class StreamsInMemory
{
public:
    StreamsInMemory();
    ~StreamsInMemory();
    StreamsInMemory(const StreamsInMemory &) = delete;
    StreamsInMemory &operator=(const StreamsInMemory &) = delete;

    [[nodiscard]] static std::string take_out();
    [[nodiscard]] static std::string take_err();
};

/* The fuzzer's bytes, taken apart from the front; past their end come zeros and empty texts. */
class Input
{
public:
    Input(const std::uint8_t *bytes, std::size_t size) : bytes_(reinterpret_cast<const char *>(bytes), size)
    {
    }

    [[nodiscard]] bool is_empty() const { return at_ >= bytes_.size(); }

    /* 0 to count - 1, from one byte. */
    [[nodiscard]] std::size_t number(std::size_t count);

    /* Up to the next zero byte, or to the end. */
    [[nodiscard]] std::string text();

    /* All that is left, zero bytes too. */
    [[nodiscard]] std::string rest();

private:
    std::string bytes_;
    std::size_t at_ = 0;
};

/* The part of a text before its first zero byte: what a function of C's sees of it. */
[[nodiscard]] std::string until_zero(const std::string &text);

/* The lines of a file, each with its newline if it has one. */
[[nodiscard]] Lines lines_of(const std::string &content);

[[nodiscard]] bool is_blank(char c);

/* The number that a text begins with, as strtol(3) reads it in base 10. */
[[nodiscard]] long leading_number(const std::string &text);

} // namespace kolmo::testing
