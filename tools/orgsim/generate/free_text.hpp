// Free text and numbers with the shapes that break careless exporters: commas,
// double quotes, line breaks (LF and CR LF), tabs, emoji (with skin tones and
// joiners), other scripts, very long values, and numbers written in full however
// large or small they are.
#pragma once

#include <string>

#include "tools/orgsim/generate/random_source.hpp"

namespace corvane::orgsim::FreeText {

// A short sentence of ordinary words, capitalised, ending with a full stop.
std::string sentence(RandomSource& random);

// A note as people type them into a description field: one to a few sentences,
// often with commas, sometimes with "quoted" words, line breaks, emoji or a phrase
// in another script; now and then several kilobytes long. Up to `maxLength`
// bytes, never cutting a character in two.
std::string note(RandomSource& random, std::size_t maxLength = 32000);

// A decimal with `scale` digits after the point, up to `integerDigits` before
// it, written plainly ("1234.50", "0.0000001"); occasionally the largest or
// smallest the shape holds.
std::string decimal(RandomSource& random, int integerDigits, int scale);

// Cuts text at most `maxBytes` long without splitting a UTF-8 sequence.
std::string truncated(std::string text, std::size_t maxBytes);

}  // namespace corvane::orgsim::FreeText
