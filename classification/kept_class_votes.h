#pragma once
// The joined classes of the fonts, kept from one process to the next in "FontClassVotes.bin" in
// the user's cache folder, so that a question for classes does not run the class vote over every
// font again. A font's joined mask follows from its own similarity vector, linear mask and name,
// and from what every font shares: the vote's data file, the shipped faces' vectors and which of
// them vote, and the kernels that score them (those with fused multiply-adds round otherwise). The
// file names the shared inputs by one identity in its header; a record holds a font's name,
// linear mask, a hash of its vector and its joined mask, so a font whose row or vector changed is
// voted on again and the others keep theirs.
//
//   "FXCV", version (u32), identity (u64), count (u32), then per font:
//   name length (u32), name, linear mask (u32), vector hash (u64), joined mask (u32),
//   check sum (u64) of the record's bytes before it, seeded with the identity
//
// in the machine's byte order: the file never leaves the machine that wrote it.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "classification/class_vote.h"

namespace fontrix {

constexpr const char* kKeptClassVotesFileName = "FontClassVotes.bin";

struct KeptClassVote {
  std::string name;
  uint32_t linear = 0;  ///< the linear rows' mask the vote joined
  uint64_t vector = 0;  ///< VectorHash of the font's similarity vector
  uint32_t joined = 0;  ///< the joined mask
  bool operator==(const KeptClassVote& o) const {
    return name == o.name && linear == o.linear && vector == o.vector && joined == o.joined;
  }
};

/// A file that is not a whole file of kept votes: another file's bytes, cut short, a record
/// that does not match its check sum, a name twice, a joined mask with bits of no class.
struct KeptClassVotesError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What a file held.
struct KeptClassVotes {
  enum Source {
    kNoFile,       ///< nothing at the path
    kOtherInputs,  ///< written for other shared inputs, or by another version: nothing kept
    kFile,         ///< `votes` are the file's
  } source = kNoFile;
  uint64_t identity = 0;  ///< the header's (kOtherInputs, kFile)
  std::vector<KeptClassVote> votes;
};

/// A hash of a font's similarity vector.
uint64_t VectorHash(const float* vector, size_t dim);
/// The identity of the inputs every font's vote shares: the table, the voters' vectors (a row of
/// `dim` floats per face, in table order), which of them vote, the active kernels, and the
/// identity of the class head joined with its rules (0: none).
uint64_t VoteInputsIdentity(const ClassVoteTable& table, const float* voters, const std::vector<bool>& voting,
                            size_t dim, uint64_t head = 0);

/// The votes in `bytes` when they were kept for inputs `identity`; throws KeptClassVotesError
/// when the bytes are damaged.
KeptClassVotes ParseKeptClassVotes(const std::string& bytes, uint64_t identity);
/// The same from the file at `path`; one that cannot be read (a folder in its place) throws too.
KeptClassVotes ReadKeptClassVotes(const std::string& path, uint64_t identity);
/// The bytes of a file keeping `votes` (names once each) for inputs `identity`.
std::string KeptClassVotesBytes(uint64_t identity, const std::vector<KeptClassVote>& votes);
/// Writes them through a temporary file renamed over `path`; throws std::runtime_error.
void WriteKeptClassVotes(const std::string& path, uint64_t identity, const std::vector<KeptClassVote>& votes);

}  // namespace fontrix
