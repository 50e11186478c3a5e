// tqxnlp, the table: the thirteen subroutines that the module adds to the language, one row each,
// and qorinlp, through which a host finds rows and entries.
//
// A row tells a host the number and kinds of the arguments; the entry of the same index is what it
// calls. Arguments beyond the fewest may be absent, and the places of the others do not move then.
//
//   fargi of NLPFDD, three bits an argument:   ... 010 001 001 010
//                                            "grd" par  x0  "fun"
#include <initializer_list>

#include "front/tqxnlp.h"
#include "host/memory.h"
#include "host/process.h"

namespace tqnlp {

static constexpr char PRODUCT = 'T';
static constexpr int REQUEST_TABLE = 1;
static constexpr int REQUEST_ENTRIES = 2;

// Codes of argument kinds and the width of each in fargi.
static constexpr int M = 1;  // matrix
static constexpr int N = 2;  // name
static constexpr int KIND_BITS = 3;

static constexpr long argument_kinds(std::initializer_list<int> kinds) {
  long word = 0;
  int shift = 0;
  for (const int kind : kinds) {
    word |= static_cast<long>(kind) << shift;
    shift += KIND_BITS;
  }
  return word;
}

// A row: the fewest arguments and the kind of each. The most arguments are those whose kinds it
// lists.
static constexpr FNCSTR row(short fewest, std::initializer_list<int> kinds) {
  return {0, 0, fewest, static_cast<short>(kinds.size()), PRODUCT, 1, argument_kinds(kinds)};
}

static constexpr FNCITEM TABLE[SUBROUTINES] = {
    {"NLPFDD", row(2, {N, M, M, N})},
    {"NLPFEA", row(2, {M, M, M})},
    {"NLPQUA", row(2, {M, M, M, M, M, M, N, M})},
    {"NLPNMS", row(2, {N, M, M, M, M, M, N, N})},
    {"NLPVMC", row(2, {N, M, M, M, M, M, N, N, N, N})},
    {"NLPCG", row(2, {N, M, M, M, M, M, N, N})},
    {"NLPQN", row(2, {N, M, M, M, M, M, N, N, N, N})},
    {"NLPDD", row(2, {N, M, M, M, M, M, N, N})},
    {"NLPTR", row(2, {N, M, M, M, M, M, N, N, N})},
    {"NLPNRA", row(2, {N, M, M, M, M, M, N, N, N})},
    {"NLPNRR", row(2, {N, M, M, M, M, M, N, N, N})},
    {"NLPLM", row(3, {N, M, M, M, M, M, N, N})},
    {"NLPHQN", row(3, {N, M, M, M, M, M, N, N})},
};

// In the order of the rows of TABLE: nothing but the index ties the two together.
static constexpr TqxEntry ENTRIES[SUBROUTINES] = {
    tqxfdd, tqxfea, tqxqas, tqxnms, tqxvmc, tqxcg,  tqxqn,
    tqxdd,  tqxtr,  tqxnra, tqxnrr, tqxlm,  tqxhqn,
};

// Makes the record that answers a request: count and table, or count and entries. Null without
// memory. The rows themselves are constants of the module and are lent; the entries are copied.
static void* xfmuent(int request, long count, const FNCITEM* table, const TqxEntry* routines) {
  if (request == REQUEST_TABLE) {
    auto* answer = static_cast<FNCUSR*>(vmalloc_handler(sizeof(FNCUSR), 0));
    if (answer != nullptr) *answer = {count, table};
    return answer;
  }
  auto* answer = static_cast<FNCENT*>(vmalloc_handler(sizeof(FNCENT), 0));
  if (answer == nullptr) return nullptr;
  answer->nfnc = count;
  for (long i = 0; i < count; ++i) answer->entry[i] = routines[i];
  return answer;
}

void* qorinlp(int request) {
  if (request != REQUEST_TABLE && request != REQUEST_ENTRIES) return nullptr;
  void* answer = request == REQUEST_TABLE ? xfmuent(request, SUBROUTINES, TABLE, nullptr)
                                          : xfmuent(request, SUBROUTINES, nullptr, ENTRIES);
  if (answer == nullptr) xexit(EXIT_NO_MEMORY, 0);
  return answer;
}

}  // namespace tqnlp
