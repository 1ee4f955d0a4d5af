// Pieces of literal text recorded once and copied many times: the JSON text
// between the values of a counters block or an event record, cut out of what
// the JSON writer writes for the shape, so that it is that writer's text byte
// for byte. The recorded text ends in kPiecePadding readable bytes, so that a
// short piece is copied in one fixed-size move; every room a piece is copied
// into keeps as many bytes spare after the end of its text.
// Stage: base.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace nmb {

inline constexpr size_t kPiecePadding = 64;

// `length` bytes at `at` of a PieceText.
struct TextPiece {
  uint32_t at = 0;
  uint32_t length = 0;
};

class PieceText {
 public:
  // Appends `text` as the next piece.
  TextPiece add(std::string_view text) {
    const TextPiece piece{static_cast<uint32_t>(text_.size()), static_cast<uint32_t>(text.size())};
    text_ += text;
    return piece;
  }
  // Adds the padding; no piece is added after it.
  void seal() { text_.append(kPiecePadding, '\0'); }

  const char* data() const { return text_.data(); }
  std::string_view view(TextPiece piece) const { return {text_.data() + piece.at, piece.length}; }

 private:
  std::string text_;
};

// Copies `length` bytes at `from` (followed by kPiecePadding readable bytes)
// to `at` (with as many writable after them); returns the end of the copy.
// A piece of up to `Move` bytes is copied in one move of that fixed size:
// callers whose pieces are mostly short pick a shorter move.
template <size_t Move = kPiecePadding>
inline char* put_piece(char* at, const char* from, size_t length) {
  static_assert(Move <= kPiecePadding);
  if (length <= Move) {
    std::memcpy(at, from, Move);
  } else {
    std::memcpy(at, from, length);
  }
  return at + length;
}

inline char* put_piece(char* at, const PieceText& text, TextPiece piece) {
  return put_piece(at, text.data() + piece.at, piece.length);
}

}  // namespace nmb
