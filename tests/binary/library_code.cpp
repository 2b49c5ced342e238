// SPDX-License-Identifier: Apache-2.0
// Reads the library's machine code, as `objdump -d -M intel --no-show-raw-insn` prints it on the standard input, and
// holds it to one of two promises.
//
//   instructions         Nothing above SSE4.2 and POPCNT: every mnemonic is one of the lists below, which have none
//   that
//                        needs more, and no operand is wider than an xmm register. VEX and EVEX encodings have
//                        mnemonics of their own, and so have BMI, LZCNT, MOVBE, AES and the rest.
//   stack <objects>...   The compiler's figures, in a .su file beside each object, are up to 4 KiB a function, but for
//                        the frames listed below; and so is the sum of the frames of any chain of calls.
#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Instruction {
  std::string mnemonic, operands, line;
};
struct Function {
  std::string name;
  std::vector<Instruction> code;
};

// A function's line is "address <name>:", an instruction's " address:\tmnemonic operands", prefixes being words of
// their own.
std::vector<Function> read_code() {
  const std::set<std::string> prefixes = {"rep", "repz", "cs", "ds", "data16", "notrack", "bnd"};
  std::vector<Function> functions;
  for (std::string line; std::getline(std::cin, line);) {
    const size_t tab = line.find('\t');
    if (line.ends_with(">:")) {
      functions.push_back({line.substr(line.find('<') + 1, line.size() - line.find('<') - 3), {}});
    } else if (tab != std::string::npos && !functions.empty()) {
      Instruction instruction;
      std::istringstream words(line.substr(tab));
      do words >> instruction.mnemonic;
      while (prefixes.contains(instruction.mnemonic) && !words.eof());
      std::getline(words >> std::ws, instruction.operands);
      instruction.line = functions.back().name + ":" + line;
      functions.back().code.push_back(instruction);
    }
  }
  return functions;
}

int fail(const std::string& sentence) { return std::cout << sentence << '\n', 1; }

// ---- Instructions ----

constexpr const char* general = R"(
  adc add and bsf bsr bswap bt btc btr bts call cbw cdq cdqe cmp cqo cwd cwde dec div endbr64 idiv imul inc jmp lea leave
  mov movabs movs movsx movsxd movzx mul neg nop not or pop push ret rol ror sar sbb shl shld shr shrd stos sub test ud2
  xchg xor
  ja jae jb jbe je jg jge jl jle jne jno jnp jns jo jp js
  seta setae setb setbe sete setg setge setl setle setne setno setnp setns seto setp sets
  cmova cmovae cmovb cmovbe cmove cmovg cmovge cmovl cmovle cmovne cmovno cmovnp cmovns cmovo cmovp cmovs)";
constexpr const char* sse_and_sse2 = R"(
  addpd addps addsd addss andnpd andnps andpd andps comisd comiss cvtdq2pd cvtdq2ps cvtpd2dq cvtpd2ps cvtps2dq cvtps2pd
  cvtsd2si cvtsd2ss cvtsi2sd cvtsi2ss cvtss2sd cvtss2si cvttpd2dq cvttps2dq cvttsd2si cvttss2si divpd divps divsd divss
  lfence maxpd maxps maxsd maxss mfence minpd minps minsd minss movapd movaps movd movdqa movdqu movhlps movhpd movhps
  movlhps movlpd movlps movmskpd movmskps movntdq movnti movntpd movntps movq movsd movss movupd movups mulpd mulps mulsd
  mulss orpd orps packssdw packsswb packuswb paddb paddd paddq paddsb paddsw paddusb paddusw paddw pand pandn pavgb pavgw
  pcmpeqb pcmpeqd pcmpeqw pcmpgtb pcmpgtd pcmpgtw pextrw pinsrw pmaddwd pmaxsw pmaxub pminsw pminub pmovmskb pmulhuw
  pmulhw pmullw pmuludq por prefetchnta prefetcht0 prefetcht1 prefetcht2 psadbw pshufd pshufhw pshuflw pslld pslldq psllq
  psllw psrad psraw psrld psrldq psrlq psrlw psubb psubd psubq psubsb psubsw psubusb psubusw psubw punpckhbw punpckhdq
  punpckhqdq punpckhwd punpcklbw punpckldq punpcklqdq punpcklwd pxor rcpps rcpss rsqrtps rsqrtss sfence shufpd shufps
  sqrtpd sqrtps sqrtsd sqrtss subpd subps subsd subss ucomisd ucomiss unpckhpd unpckhps unpcklpd unpcklps xorpd xorps
  cmpeqpd cmplepd cmpltpd cmpneqpd cmpnlepd cmpnltpd cmpordpd cmpunordpd cmpeqsd cmplesd cmpltsd cmpneqsd cmpnlesd
  cmpnltsd cmpordsd cmpunordsd cmpeqps cmpleps cmpltps cmpneqps cmpnleps cmpnltps cmpordps cmpunordps cmpeqss cmpless
  cmpltss cmpneqss cmpnless cmpnltss cmpordss cmpunordss)";
constexpr const char* sse3_and_ssse3 = R"(
  addsubpd addsubps haddpd haddps hsubpd hsubps lddqu movddup movshdup movsldup
  pabsb pabsd pabsw palignr phaddd phaddsw phaddw phsubd phsubsw phsubw pmaddubsw pmulhrsw pshufb psignb psignd psignw)";
constexpr const char* sse4_and_popcnt = R"(
  blendpd blendps blendvpd blendvps dppd dpps extractps insertps movntdqa mpsadbw packusdw pblendvb pblendw pcmpeqq
  pextrb pextrd pextrq phminposuw pinsrb pinsrd pinsrq pmaxsb pmaxsd pmaxud pmaxuw pminsb pminsd pminud pminuw pmovsxbd
  pmovsxbq pmovsxbw pmovsxdq pmovsxwd pmovsxwq pmovzxbd pmovzxbq pmovzxbw pmovzxdq pmovzxwd pmovzxwq pmuldq pmulld ptest
  roundpd roundps roundsd roundss pcmpestri pcmpestrm pcmpgtq pcmpistri pcmpistrm popcnt)";

bool reads_flags(const std::string& mnemonic) {
  return (mnemonic[0] == 'j' && mnemonic != "jmp") || mnemonic.starts_with("set") || mnemonic.starts_with("cmov") ||
         mnemonic == "adc" || mnemonic == "sbb";
}

bool keeps_flags(const std::string& mnemonic) {
  return mnemonic.starts_with("mov") || mnemonic == "lea" || mnemonic == "nop" || mnemonic == "bswap" ||
         mnemonic == "not" || mnemonic == "push" || mnemonic == "pop" || mnemonic == "xchg";
}

bool has_word(const std::string& operands, const std::string& word) {
  const size_t at = operands.find(word);
  return at != std::string::npos && (at == 0 || !std::isalnum(static_cast<unsigned char>(operands[at - 1])));
}

int look_at_instructions(const std::vector<Function>& functions) {
  std::set<std::string> allowed;
  for (const char* list : {general, sse_and_sse2, sse3_and_ssse3, sse4_and_popcnt}) {
    std::istringstream words(list);
    for (std::string word; words >> word;) allowed.insert(word);
  }
  size_t count = 0, bit_scans = 0;
  std::set<std::string> seen;
  for (const Function& function : functions) {
    for (size_t i = 0; i < function.code.size(); i++, count++) {
      const Instruction& it = function.code[i];
      seen.insert(it.mnemonic);
      // `rep bsf`, which is what compilers write for bsf where the operand isn't 0: a processor without BMI ignores the
      // prefix, and one with it calls it tzcnt. They differ in the flags alone, which nothing may look at, then.
      if (it.mnemonic == "tzcnt") {
        size_t next = i + 1;
        while (next < function.code.size() && keeps_flags(function.code[next].mnemonic)) next++;
        if (next < function.code.size() && reads_flags(function.code[next].mnemonic)) {
          return fail("The flags of tzcnt, which bsf sets in another way, are looked at: " + it.line);
        }
        bit_scans++;
      } else if (!allowed.contains(it.mnemonic)) {
        return fail("An instruction that is not on the list of the library's level: " + it.line);
      }
      for (const char* wide : {"ymm", "zmm", "mm0", "mm1", "mm2", "mm3", "mm4", "mm5", "mm6", "mm7", "st("}) {
        if (has_word(it.operands, wide)) return fail("A register that isn't the library's: " + it.line);
      }
    }
  }
  if (!seen.contains("pshufb") || !seen.contains("popcnt")) return fail("The disassembly shows no kernel.");
  std::cout << "figure: " << count << " instructions, " << seen.size() << " mnemonics, none above SSE4.2 and POPCNT; "
            << bit_scans << " times `rep bsf`, whose flags nothing reads\n";
  return 0;
}

// ---- Stack ----

constexpr uint64_t most = 4096;

// Frames above that: the source, the function, the most it may have, and why.
struct Frame {
  const char *source, *function;
  uint64_t most;
  const char* reason;
};
constexpr Frame documented[] = {
    {"join/bloom.cpp", "test_selected", 6 * 1024, "rows, numbers and addresses of a batch of 256 rows"},
    {"join/partition.cpp", "partition", 17 * 1024, "hashes of a batch of 1024 rows, and where its values begin"},
    {"join/ht_build.cpp", "build_into", 17 * 1024, "hashes of a batch of 1024 rows, and where its values begin"},
    {"join/ht_probe.cpp", "probe_in", 17 * 1024, "hashes of a batch of 1024 rows, and where its values begin"},
};

// A line of a .su file: "source:line:column:signature\tbytes\tkind".
int look_at_frames(int count, char** objects) {
  std::map<std::string, uint64_t> worst_of;  // of the documented functions, and of all others under ""
  size_t functions = 0;
  std::string worst_line;
  for (int i = 0; i < count; i++) {
    std::string path = objects[i];
    std::ifstream file(path.replace(path.rfind('.'), std::string::npos, ".su"));
    if (!file) return fail("There are no figures of the compiler's in " + path);
    for (std::string line; std::getline(file, line); functions++) {
      const size_t tab = line.find('\t'), kind = line.rfind('\t');
      const std::string signature = line.substr(0, tab), bytes = line.substr(tab + 1, kind - tab - 1);
      const uint64_t frame = std::stoull(bytes);
      if (line.substr(kind + 1) == "dynamic") return fail("A frame without a bound: " + line);
      const Frame* known = nullptr;
      for (const Frame& entry : documented) {
        const std::string source = std::string(entry.source) + ":";
        if (signature.find(source) == std::string::npos) continue;
        if (signature.find(std::string(entry.function) + "(") != std::string::npos) known = &entry;
      }
      if (frame > (known != nullptr ? known->most : most)) return fail("A frame of " + bytes + " bytes: " + signature);
      uint64_t& worst = worst_of[known != nullptr ? known->function : ""];
      if (known == nullptr && frame > worst) worst_line = signature;
      worst = std::max(worst, frame);
    }
  }
  for (const Frame& entry : documented) {
    if (worst_of[entry.function] <= most) return fail(std::string(entry.function) + " needs no exception any more.");
  }
  std::cout << "figure: " << functions << " functions, frames of up to " << worst_of[""] << " bytes";
  for (const Frame& entry : documented) {
    std::cout << "; `" << entry.function << "` " << worst_of[entry.function] << " (" << entry.reason << ")";
  }
  std::cout << '\n' << "the largest frame: " << worst_line << '\n';
  return 0;
}

// What a function takes by itself at most: its return address, the registers it saves, and its frame.
uint64_t own_bytes(const Function& function) {
  std::set<std::string> saved;
  uint64_t frame = 0, pushed = 0;
  for (const Instruction& it : function.code) {
    const bool is_register = it.operands.find('[') == std::string::npos && it.operands.starts_with('r');
    if (it.mnemonic == "push" && (!is_register || saved.insert(it.operands).second)) pushed += 8;
    const bool takes = it.mnemonic == "sub" || (it.mnemonic == "add" && it.operands.starts_with("rsp,0xffffffff"));
    if (takes && it.operands.starts_with("rsp,0x")) {
      const auto bytes = static_cast<int64_t>(std::stoull(it.operands.substr(4), nullptr, 16));
      frame = std::max(frame, static_cast<uint64_t>(bytes < 0 ? -bytes : bytes));
    }
    if (it.mnemonic == "and" && it.operands.starts_with("rsp,")) pushed += 64;
  }
  return 8 + pushed + frame;
}

class Chains {
 public:
  explicit Chains(const std::vector<Function>& functions) {
    for (const Function& function : functions) by_name_[function.name] = &function;
    for (size_t i = 0; i + 1 < functions.size(); i++) behind_[functions[i].name] = functions[i + 1].name;
  }

  struct Bytes {
    uint64_t all = 0, without_documented = 0;
    bool operator==(const Bytes&) const = default;
  };

  // The most that a call of this function takes, by whatever chain of calls inside the library, with and without the
  // documented frames. What a callback of the host takes isn't counted. A jump to another function counts as a call.
  Bytes bytes(const std::string& name) {
    const auto function = by_name_.find(name);
    if (function == by_name_.end()) return {8, 8};
    const auto [known, is_new] = bytes_.emplace(name, unfinished);
    if (known->second == unfinished && !is_new) calls_itself = name;
    if (!is_new) return known->second;
    Bytes deepest;
    for (const Instruction& it : function->second->code) {
      const bool calls = it.mnemonic == "call";
      if (calls && it.operands.ends_with("*8]")) {  // by the dispatch table, as group key composition decodes
        for (const auto& [other, code] : by_name_) {
          if (other.find("13decode_unpackI") != std::string::npos) deepen(deepest, bytes(other));
        }
      }
      const size_t open = it.operands.find('<');
      if (open == std::string::npos || (!calls && it.mnemonic[0] != 'j')) continue;
      const std::string target = it.operands.substr(open + 1, it.operands.rfind('>') - open - 1);
      // Jumps within a function, and to its end: that is where g++ sends what can't happen.
      const bool within = target.find('+') != std::string::npos || target == name;
      if (!calls && (within || (it.mnemonic != "jmp" && target == behind_[name]))) continue;
      deepen(deepest, bytes(target));
      if (calls_itself != "") return {};
    }
    const uint64_t own = own_bytes(*function->second);
    return bytes_[name] = {own + deepest.all, (own > most ? 0 : own) + deepest.without_documented};
  }

  std::string calls_itself;

 private:
  static void deepen(Bytes& deepest, Bytes called) {
    deepest.all = std::max(deepest.all, called.all);
    deepest.without_documented = std::max(deepest.without_documented, called.without_documented);
  }

  static constexpr Bytes unfinished = {~uint64_t{0}, ~uint64_t{0}};
  std::map<std::string, const Function*> by_name_;
  std::map<std::string, std::string> behind_;
  std::map<std::string, Bytes> bytes_;
};

int look_at_chains(const std::vector<Function>& functions) {
  Chains chains(functions);
  uint64_t deepest = 0, worst = 0;
  for (const Function& function : functions) {
    const Chains::Bytes bytes = chains.bytes(function.name);
    if (chains.calls_itself != "") return fail("It calls itself: " + chains.calls_itself);
    if (bytes.without_documented > most) {
      return fail("A call takes " + std::to_string(bytes.without_documented) + " bytes of stack: " + function.name);
    }
    deepest = std::max(deepest, bytes.all);
    worst = std::max(worst, bytes.without_documented);
  }
  std::cout << "figure: chains of calls take up to " << worst << " bytes, or with one of these frames " << deepest
            << "; no function calls itself\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<Function> functions = read_code();
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "instructions") return look_at_instructions(functions);
  if (what == "stack") return look_at_frames(argc - 2, argv + 2) | look_at_chains(functions);
  return fail("usage: library_code instructions | stack <objects>...");
}
