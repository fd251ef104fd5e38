#include "classification/kept_class_votes.h"

#include <cstring>
#include <unordered_set>

#include "classification/feature_cache_file.h"
#include "deepnet/gemm.h"
#include "shell/byte_reader.h"
#include "shell/check_sum.h"
#include "shell/file_bytes.h"

namespace fontrix {

namespace {

constexpr char kMagic[4] = {'F', 'X', 'C', 'V'};
// Raised when the file's layout or the vote's arithmetic changes: masks another version worked
// out are worked out again.
constexpr uint32_t kVersion = 2;
constexpr uint32_t kLongestName = 1024;
// A record of a one-byte name.
constexpr size_t kSmallestRecord = 4 + 1 + 4 + 8 + 4 + 8;

template <typename T>
void Put(std::string& out, const T& value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void PutText(std::string& out, const std::string& text) {
  Put(out, uint64_t(text.size()));
  out += text;
}

using Reader = ByteReader<KeptClassVotesError>;

}  // namespace

uint64_t VectorHash(const float* vector, size_t dim) { return CheckSum(vector, dim * sizeof(float), 0); }

uint64_t VoteInputsIdentity(const ClassVoteTable& table, const float* voters, const std::vector<bool>& voting,
                            size_t dim, uint64_t head) {
  std::string shared;
  Put(shared, uint64_t(dim));
  Put(shared, int64_t(table.neighbours));
  Put(shared, table.temperature);
  for (const ClassVoteRule& rule : table.rules) {
    Put(shared, rule.low);
    Put(shared, rule.high);
  }
  // The head's rules count only with a head: without one the answers do not depend on them.
  Put(shared, head);
  if (head)
    for (const ClassVoteRule& rule : table.headRules) {
      Put(shared, rule.low);
      Put(shared, rule.high);
      Put(shared, rule.weight);
    }
  Put(shared, uint64_t(table.faces.size()));
  for (const ClassVoteFace& face : table.faces) {
    PutText(shared, face.identifier);
    PutText(shared, face.name);
    Put(shared, face.mask);
  }
  // A face past the flags takes no part, as one whose flag is false.
  for (size_t j = 0; j < table.faces.size(); ++j) Put(shared, uint8_t(j < voting.size() && voting[j]));
  PutText(shared, deepnet::active_kernels().name);
  return CheckSum(voters, table.faces.size() * dim * sizeof(float), CheckSum(shared.data(), shared.size(), 0));
}

KeptClassVotes ParseKeptClassVotes(const std::string& bytes, uint64_t identity) {
  Reader in(bytes);
  char magic[sizeof kMagic];
  in.Take(magic, sizeof magic, "the header");
  if (std::memcmp(magic, kMagic, sizeof magic) != 0) throw KeptClassVotesError("not a file of kept class votes");
  const uint32_t version = in.Get<uint32_t>("the header");
  KeptClassVotes kept;
  kept.identity = in.Get<uint64_t>("the header");
  const uint32_t count = in.Get<uint32_t>("the header");
  kept.source = KeptClassVotes::kOtherInputs;
  if (version != kVersion || kept.identity != identity) return kept;
  if (count > in.Left() / kSmallestRecord)
    throw KeptClassVotesError(std::to_string(count) + " records counted, more than its bytes hold");
  kept.votes.reserve(count);
  std::unordered_set<std::string> names;
  names.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    const size_t start = in.At();
    const uint32_t length = in.Get<uint32_t>("a name");
    if (length == 0 || length > kLongestName)
      throw KeptClassVotesError("a name of " + std::to_string(length) + " bytes");
    KeptClassVote vote;
    vote.name.resize(length);
    in.Take(vote.name.data(), length, "a name");
    vote.linear = in.Get<uint32_t>("a record");
    vote.vector = in.Get<uint64_t>("a record");
    vote.joined = in.Get<uint32_t>("a record");
    const size_t end = in.At();
    if (in.Get<uint64_t>("a check sum") != CheckSum(bytes.data() + start, end - start, identity))
      throw KeptClassVotesError(vote.name + ": the record does not match its check sum");
    if (vote.joined & ~kAllClassBits) throw KeptClassVotesError(vote.name + ": joined classes of no style class");
    if (!names.insert(vote.name).second) throw KeptClassVotesError(vote.name + " is kept twice");
    kept.votes.push_back(std::move(vote));
  }
  if (in.Left()) throw KeptClassVotesError("bytes after the last record");
  kept.source = KeptClassVotes::kFile;
  return kept;
}

KeptClassVotes ReadKeptClassVotes(const std::string& path, uint64_t identity) {
  std::string bytes, why;
  switch (ReadFileBytes(path, bytes, why)) {
    case FileState::kMissing:
      return {};
    case FileState::kUnreadable:
      throw KeptClassVotesError(why);
    case FileState::kRead:
      break;
  }
  return ParseKeptClassVotes(bytes, identity);
}

std::string KeptClassVotesBytes(uint64_t identity, const std::vector<KeptClassVote>& votes) {
  std::string records;
  uint32_t count = 0;
  std::unordered_set<std::string> names;
  for (const KeptClassVote& vote : votes) {
    // What the reader would refuse is left out: those fonts are voted on again.
    if (vote.name.empty() || vote.name.size() > kLongestName || (vote.joined & ~kAllClassBits) ||
        !names.insert(vote.name).second)
      continue;
    const size_t start = records.size();
    Put(records, uint32_t(vote.name.size()));
    records += vote.name;
    Put(records, vote.linear);
    Put(records, vote.vector);
    Put(records, vote.joined);
    Put(records, CheckSum(records.data() + start, records.size() - start, identity));
    ++count;
  }
  std::string bytes(kMagic, sizeof kMagic);
  Put(bytes, kVersion);
  Put(bytes, identity);
  Put(bytes, count);
  return bytes + records;
}

void WriteKeptClassVotes(const std::string& path, uint64_t identity, const std::vector<KeptClassVote>& votes) {
  ReplaceFile(path, KeptClassVotesBytes(identity, votes));
}

}  // namespace fontrix
