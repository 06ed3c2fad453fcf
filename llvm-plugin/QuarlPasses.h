// The plugin's two passes and what they share: which functions Quarl
// handles, their profile keys, and the counter placement that both
// instrumentation and profile use compute, so that both arrive at the same
// stored words.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "llvm/Analysis/TargetLibraryInfo.h"
#include "llvm/IR/PassManager.h"

#include "RoutineGraph.h"

namespace quarl_llvm {

// Counters inserted on the edges Quarl selects, and the module's table of
// functions registered with the training runtime.
class QuarlInstrumentPass : public llvm::PassInfoMixin<QuarlInstrumentPass> {
public:
    llvm::PreservedAnalyses run(llvm::Module &M, llvm::ModuleAnalysisManager &MAM);
};

// Entry counts, branch weights, value profiles and the profile summary from
// a profile file.
class QuarlProfileUsePass : public llvm::PassInfoMixin<QuarlProfileUsePass> {
public:
    explicit QuarlProfileUsePass(std::string Path) : Path(std::move(Path)) {}
    llvm::PreservedAnalyses run(llvm::Module &M, llvm::ModuleAnalysisManager &MAM);

private:
    std::string Path;
};

// True for a variable set to anything but empty or "0".
bool envFlag(const char *Name);

// A warning through the compiler's diagnostics, "quarl: F: Message".
void warn(llvm::Function &F, const llvm::Twine &Message);

// Defined functions that Quarl instruments and annotates.
std::vector<llvm::Function *> handledFunctions(llvm::Module &M);

// The function's key in profiles: its symbol, "FILE:" before it when it has
// internal linkage.
std::string profileKey(const llvm::Function &F);

// An instruction whose values the profile records, in instruction order:
// an indirect call (its callee) or a memcpy, memmove, memset, memcmp or
// bcmp whose length is not a constant (its length). Kind is
// QUARL_VALUE_CALL_TARGET or QUARL_VALUE_MEMOP_SIZE.
struct ValueSite {
    llvm::Instruction *Site;
    uint32_t Kind;
};
std::vector<ValueSite> valueSites(llvm::Function &F, const llvm::TargetLibraryInfo &TLI);

// The function's graph with the static estimate's edge costs.
RoutineGraph planFunction(llvm::Function &F, llvm::FunctionAnalysisManager &FAM,
                          const CalleeFacts &Facts);

// One function's graph after placement: its stored words and, per planned
// edge, the counter it carries (or none).
struct Placement {
    std::vector<uint32_t> Words;
    std::vector<int64_t> CounterOfEdge; // -1: not counted
    uint32_t NumCounters = 0;
};

// Counter selection, placement and encoding, for F's graph; false when
// memory runs out or no placement is found. With QUARL_CHECK_PLACEMENT=1
// (a test mode), a placement with formulas must give the same, or F's
// module gets an error.
bool placeCounters(const RoutineGraph &Plan, Placement &Out, llvm::Function &F);

} // namespace quarl_llvm
