// The exported level checks, one row each: what it requires, guarantees and does.
#pragma once

#include <cstdint>

#include "cpu/fp_mode.h"

namespace ksomd::test {

using Entry = void (*)(std::uint32_t flags);

enum class Missing { Returns, ProcessorReport, SystemReport };

struct EntryRow {
  const char* name;
  Entry entry;
  std::uint64_t required;  // 0: the entry checks nothing
  Guarantees known;
  bool takes_flags;
  Missing missing;
  std::uint32_t message;
  bool sets_mode;
};

// One declaration for each exported name, the dotted ones included.
// NOLINTBEGIN(bugprone-macro-parentheses): the arguments are names
#define ENTRY(id, exported) extern "C" void id(std::uint32_t flags) __asm__(exported)
ENTRY(p, "__orvex_proc_init");
ENTRY(n, "__orvex_new_proc_init");
ENTRY(pB, "__orvex_proc_init_B");
ENTRY(nB, "__orvex_new_proc_init_B");
ENTRY(pN, "__orvex_proc_init_N");
ENTRY(nN, "__orvex_new_proc_init_N");
ENTRY(pP, "__orvex_proc_init_P");
ENTRY(nP, "__orvex_new_proc_init_P");
ENTRY(pT, "__orvex_proc_init_T");
ENTRY(nT, "__orvex_new_proc_init_T");
ENTRY(nL, "__orvex_new_proc_init_L");
ENTRY(nS, "__orvex_new_proc_init_S");
ENTRY(nH, "__orvex_new_proc_init_H");
ENTRY(nG, "__orvex_new_proc_init_G");
ENTRY(nI, "__orvex_new_proc_init_I");
ENTRY(nE, "__orvex_new_proc_init_E");
ENTRY(pA, "__orvex_proc_init.A");
ENTRY(nA, "__orvex_new_proc_init.A");
ENTRY(pBA, "__orvex_proc_init_B.A");
ENTRY(nBA, "__orvex_new_proc_init_B.A");
ENTRY(pNA, "__orvex_proc_init_N.A");
ENTRY(nNA, "__orvex_new_proc_init_N.A");
ENTRY(pPA, "__orvex_proc_init_P.A");
ENTRY(nPA, "__orvex_new_proc_init_P.A");
ENTRY(pTA, "__orvex_proc_init_T.A");
ENTRY(nTA, "__orvex_new_proc_init_T.A");
ENTRY(nLA, "__orvex_new_proc_init_L.A");
ENTRY(nSA, "__orvex_new_proc_init_S.A");
ENTRY(nHA, "__orvex_new_proc_init_H.A");
ENTRY(nGA, "__orvex_new_proc_init_G.A");
ENTRY(nIA, "__orvex_new_proc_init_I.A");
ENTRY(nEA, "__orvex_new_proc_init_E.A");
ENTRY(pH_, "__orvex_proc_init.H");
ENTRY(pBJ, "__orvex_proc_init_B.J");
ENTRY(pNJ, "__orvex_proc_init_N.J");
ENTRY(pBK, "__orvex_proc_init_B.K");
ENTRY(pBL, "__orvex_proc_init_B.L");
ENTRY(pNK, "__orvex_proc_init_N.K");
ENTRY(pNL, "__orvex_proc_init_N.L");
ENTRY(pPL, "__orvex_proc_init_P.L");
ENTRY(pTM, "__orvex_proc_init_T.M");
ENTRY(nH_, "__orvex_new_proc_init.H");
ENTRY(nBJ, "__orvex_new_proc_init_B.J");
ENTRY(nNJ, "__orvex_new_proc_init_N.J");
ENTRY(nBK, "__orvex_new_proc_init_B.K");
ENTRY(nBL, "__orvex_new_proc_init_B.L");
ENTRY(nLO, "__orvex_new_proc_init_L.O");
ENTRY(nNK, "__orvex_new_proc_init_N.K");
ENTRY(nNL, "__orvex_new_proc_init_N.L");
ENTRY(nPL, "__orvex_new_proc_init_P.L");
ENTRY(nSN, "__orvex_new_proc_init_S.N");
ENTRY(nTM, "__orvex_new_proc_init_T.M");
ENTRY(nEV, "__orvex_new_proc_init_E.V");
ENTRY(nGR, "__orvex_new_proc_init_G.R");
ENTRY(nHP, "__orvex_new_proc_init_H.P");
ENTRY(nIS, "__orvex_new_proc_init_I.S");
// NOLINTEND(bugprone-macro-parentheses)

inline constexpr auto returns = Missing::Returns;
inline constexpr auto processor = Missing::ProcessorReport;
inline constexpr auto system = Missing::SystemReport;

inline const EntryRow entry_rows[] = {
    {"__orvex_proc_init", p, 0x2E, 0, false, returns, 0, true},
    {"__orvex_new_proc_init", n, 0x2E, 0, true, returns, 0, true},
    {"__orvex_proc_init_B", pB, 0x6E, 2, false, processor, 44, true},
    {"__orvex_new_proc_init_B", nB, 0x6E, 2, true, processor, 44, true},
    {"__orvex_proc_init_N", pN, 0x6E, 2, false, processor, 45, true},
    {"__orvex_new_proc_init_N", nN, 0x6E, 2, true, processor, 45, true},
    {"__orvex_proc_init_P", pP, 0xEE, 2, false, processor, 43, true},
    {"__orvex_new_proc_init_P", nP, 0xEE, 2, true, processor, 43, true},
    {"__orvex_proc_init_T", pT, 0x1EE, 2, false, processor, 42, true},
    {"__orvex_new_proc_init_T", nT, 0x1EE, 2, true, processor, 42, true},
    {"__orvex_new_proc_init_L", nL, 0x9EE, 2, true, processor, 48, true},
    {"__orvex_new_proc_init_S", nS, 0x3EE, 2, true, processor, 46, true},
    {"__orvex_new_proc_init_H", nH, 0x17EE, 6, true, processor, 47, true},
    {"__orvex_new_proc_init_G", nG, 0x117EE, 6, true, system, 50, true},
    {"__orvex_new_proc_init_I", nI, 0x197EE, 6, true, system, 51, true},
    {"__orvex_new_proc_init_E", nE, 0x9D9FEE, 6, true, system, 52, true},
    {"__orvex_proc_init.A", pA, 0, 0, false, returns, 0, false},
    {"__orvex_new_proc_init.A", nA, 0, 0, true, returns, 0, false},
    {"__orvex_proc_init_B.A", pBA, 0, 0, false, processor, 44, false},
    {"__orvex_new_proc_init_B.A", nBA, 0, 0, true, processor, 44, false},
    {"__orvex_proc_init_N.A", pNA, 0, 0, false, processor, 45, false},
    {"__orvex_new_proc_init_N.A", nNA, 0, 0, true, processor, 45, false},
    {"__orvex_proc_init_P.A", pPA, 0, 0, false, processor, 43, false},
    {"__orvex_new_proc_init_P.A", nPA, 0, 0, true, processor, 43, false},
    {"__orvex_proc_init_T.A", pTA, 0, 0, false, processor, 42, false},
    {"__orvex_new_proc_init_T.A", nTA, 0, 0, true, processor, 42, false},
    {"__orvex_new_proc_init_L.A", nLA, 0, 0, true, processor, 48, false},
    {"__orvex_new_proc_init_S.A", nSA, 0, 0, true, processor, 46, false},
    {"__orvex_new_proc_init_H.A", nHA, 0, 0, true, processor, 47, false},
    {"__orvex_new_proc_init_G.A", nGA, 0, 0, true, system, 50, false},
    {"__orvex_new_proc_init_I.A", nIA, 0, 0, true, system, 51, false},
    {"__orvex_new_proc_init_E.A", nEA, 0, 0, true, system, 52, false},
    {"__orvex_proc_init.H", pH_, 0, 0, false, returns, 0, true},
    {"__orvex_proc_init_B.J", pBJ, 0, 0, false, returns, 0, true},
    {"__orvex_proc_init_N.J", pNJ, 0, 0, false, returns, 0, true},
    {"__orvex_proc_init_B.K", pBK, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_B.L", pBL, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_N.K", pNK, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_N.L", pNL, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_P.L", pPL, 0, 2, false, returns, 0, true},
    {"__orvex_proc_init_T.M", pTM, 0, 2, false, returns, 0, true},
    {"__orvex_new_proc_init.H", nH_, 0, 0, true, returns, 0, true},
    {"__orvex_new_proc_init_B.J", nBJ, 0, 0, true, returns, 0, true},
    {"__orvex_new_proc_init_N.J", nNJ, 0, 0, true, returns, 0, true},
    {"__orvex_new_proc_init_B.K", nBK, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_B.L", nBL, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_L.O", nLO, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_N.K", nNK, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_N.L", nNL, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_P.L", nPL, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_S.N", nSN, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_T.M", nTM, 0, 2, true, returns, 0, true},
    {"__orvex_new_proc_init_E.V", nEV, 0, 6, true, returns, 0, true},
    {"__orvex_new_proc_init_G.R", nGR, 0, 6, true, returns, 0, true},
    {"__orvex_new_proc_init_H.P", nHP, 0, 6, true, returns, 0, true},
    {"__orvex_new_proc_init_I.S", nIS, 0, 6, true, returns, 0, true},
};

// Calls an entry. Those that take no flags are called with them all the same, as the registers of
// both conventions allow.
[[clang::no_sanitize("function")]] inline void call_entry(Entry entry, std::uint32_t flags) {
  entry(flags);
}

}  // namespace ksomd::test
