// What the commands have in common on paper: tables, lines that fit, ages, and JSON.
#ifndef RMIPC_WORDS_H
#define RMIPC_WORDS_H

#include "common/console.h"
#include "survey.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rmipc
{

// Everything that is printed for people goes through here.
class Paper
{
  public:
    explicit Paper(const tools::Terminal& terminal) : terminal_(terminal) {}

    void line(const std::string& text) const;
    // A text that may need several lines; each begins with so many blanks.
    void paragraph(std::size_t indent, const std::string& text) const;

  private:
    tools::Terminal terminal_;
};

// Rows of cells. Columns are as wide as their widest cell; one that begins with ">" in the first
// row, which is the heading, is adjusted to the right.
class Grid
{
  public:
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }

    // The rows, each without blanks at its end.
    std::vector<std::string> lines(std::size_t indent) const;
    void print(const Paper& paper, std::size_t indent) const;

  private:
    std::vector<std::vector<std::string>> rows_;
};

// "3 minutes ago"
std::string ageOf(int64_t time, int64_t now);
int64_t nowInSeconds();

std::string userOf(uid_t user);
std::string processes(uint64_t count);  // "2 processes"

// What could not be looked at; empty when there is nothing.
std::string unseenWords(std::size_t unseen, bool hidden);
std::string keyText(key_t key);

// What the value of a semaphore tells, and how programs call it.
struct Guess {
    std::string words;
    std::string_view state;
};

Guess guessOf(const Semaphore& semaphore, People& people);

std::string bagWords(const Bag& bag);
std::string_view verdictWord(Verdict verdict);   // of JSON
std::string verdictWords(const Object& object);  // with the reason
std::string_view nameOf(Family family);          // "semaphore set", ...

// JSON, of values that are JSON themselves.
using Members = std::initializer_list<std::pair<std::string_view, std::string>>;
std::string object(Members members);
std::string array(const std::vector<std::string>& elements, std::string_view separator = ", ");
std::string text(std::string_view bytes);  // of any bytes
std::string orNull(int64_t time);          // null for 0
std::string truth(bool value);
std::string jsonOf(const Person& person);
std::string jsonOf(const std::vector<pid_t>& pids, People& people);

}  // namespace rmipc

#endif
