// Text and path utilities, front page.
//
//   strings.cpp  case, comparison, splitting, joining, bounded copies, line reading
//   paths.cpp    paths of a directory, a base name and an extension
//
// Character classes are those of ASCII whatever locale the host has set, and bytes from 0x80 up
// belong to none of them: a database server must order and fold its keys the same way on every
// machine that shares its files.
#ifndef RM_TXTUTIL_TXTUTIL_H
#define RM_TXTUTIL_TXTUTIL_H

#include "rm/base.h"

namespace txtutil
{

constexpr char kCaseBit = 'a' - 'A';

constexpr bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr bool isLower(char c)
{
    return c >= 'a' && c <= 'z';
}

constexpr bool isUpper(char c)
{
    return c >= 'A' && c <= 'Z';
}

// Blank, tab, newline, vertical tab, form feed, carriage return.
constexpr bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr char toUpper(char c)
{
    return isLower(c) ? static_cast<char>(c - kCaseBit) : c;
}

constexpr char toLower(char c)
{
    return isUpper(c) ? static_cast<char>(c + kCaseBit) : c;
}

}  // namespace txtutil

#endif
