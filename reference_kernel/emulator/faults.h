// What the emulated kernel does wrong when it is told to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tavik_wlan {

/// The family's id, unless a fault gives it another. A kernel hands ids out as families come.
inline constexpr uint16_t kFamilyId = 28;

/// By default none. Several may be combined. Counts start anew whenever they are set.
///
/// What concerns answers holds for those of the controller too; the request takes effect at once,
/// whatever becomes of its answer.
struct Faults {
  /// Gives no answer.
  bool silent = false;

  /// Keeps each answer back for so long. Only its own client waits.
  uint32_t delay_ms = 0;

  /// Cuts each datagram of an answer to so many bytes; 0 leaves them whole.
  size_t truncate = 0;

  /// Replaces each datagram of an answer by as many random bytes.
  bool garbage = false;

  /// Begins each answer with an error that answers an earlier request: -EIO for the sequence number
  /// before that of the request.
  bool stale = false;

  /// Refuses the n-th request to the family from now on, n counting from 1, with the (positive)
  /// errno; 0 refuses none.
  uint32_t refuse_nth = 0;
  int refuse_error = 0;

  /// Marks the next n dumps of tuples as inconsistent (NLM_F_DUMP_INTR).
  uint32_t interrupted_dumps = 0;

  /// Gives the family another id, above GENL_ID_CTRL; requests with the old one get -ENOENT.
  uint16_t family_id = kFamilyId;

  /// Unregisters the family: neither a look-up nor a request finds it. What it holds stays.
  bool absent = false;
};

/// Every word that parse_faults() knows: "none, silent, delay=MS" and so on.
std::string fault_words();

/// The sum of words with blanks between them, such as "silent delay=20" or "refuse=2:EPERM"; "none"
/// is the empty sum. Throws std::invalid_argument, with one line for the user.
Faults parse_faults(const std::string& words);

}  // namespace tavik_wlan
