// How a function becomes Quarl's graph: node 0 the pseudo entry, node 1
// the pseudo exit, node 2+i the i-th basic block, then one node for each
// stretch of a block that follows a call that may not come back, one for
// each branch of a block back to itself and one for each switch case (or
// branch) whose destination an earlier successor already goes to. Built the
// same way when instrumenting and when using a profile, so that both see
// the same graph and the same stored words.
#pragma once

#include <cstdint>
#include <vector>

#include "llvm/ADT/DenseMap.h"
#include "llvm/ADT/DenseSet.h"
#include "llvm/IR/Function.h"
#include "llvm/IR/PassManager.h"

#include "quarl/edgeinst.h"

namespace llvm {
class CallBase;
class BlockFrequencyInfo;
class BranchProbabilityInfo;
} // namespace llvm

namespace quarl_llvm {

const uint32_t PseudoEntry = 0;
const uint32_t PseudoExit = 1;

// Where a counter on an edge would be incremented.
enum class EdgeKind {
    FunctionEntry, // 0 -> entry block: at the start of the entry block
    AfterCall,     // a block's stretch to the next one: right after the call
    Branch,        // block -> successor SuccIndex: on the edge (split when
                   // critical)
    Return,        // a returning block -> 1: before its terminator
    Virtual,       // leaving in a call, re-entering at setjmp, 1 -> 0:
                   // no code runs there, so never counted
};

struct PlannedEdge {
    uint32_t Src, Dest;
    EdgeKind Kind;
    llvm::BasicBlock *From = nullptr;  // Branch, Return: the IR block
    llvm::Instruction *Call = nullptr; // AfterCall: the call
    int64_t Cost = 0;
    bool Pseudo = false;
    unsigned SuccIndex = 0; // Branch: the successor's index in From's terminator
};

struct RoutineGraph {
    uint32_t NumBlocks = 0; // real blocks
    uint32_t NumNodes = 0;  // with the pseudo nodes, stretches and branches back
    std::vector<PlannedEdge> Edges;
    std::vector<bool> Reachable; // per node
};

// Which calls come back to the caller, by returning or by unwinding into
// it, and never leave it by exit, longjmp or exec. Computed once per module
// before anything changes, so that instrumentation and profile use see the
// same facts.
class CalleeFacts {
public:
    // A call comes back when it is marked willreturn, or calls a library
    // function that LLVM recognises (but exec, fork, qsort, whose
    // comparison may leave, and operator new, whose handler may), or a
    // function defined here, which no other definition replaces at link
    // time, and whose every call comes back. The largest such set of
    // definitions is taken, so that recursion does not spoil it.
    static CalleeFacts of(llvm::Module &M, llvm::FunctionAnalysisManager &FAM);

    bool comesBack(const llvm::CallBase &Call) const;

    // A call returns twice when it is marked returns_twice (setjmp), or it
    // forks, or calls a function of this module that forks: a forked child
    // counts from the fork on, so in its frames the call returns without
    // having been made.
    bool returnsTwice(const llvm::CallBase &Call) const;

private:
    explicit CalleeFacts(llvm::FunctionAnalysisManager &FAM) : FAM(&FAM) {}
    bool libraryFunctionComesBack(const llvm::CallBase &Call, const llvm::Function &Callee) const;
    void findForking(llvm::Module &M);

    llvm::FunctionAnalysisManager *FAM;
    llvm::DenseSet<const llvm::Function *> DefinedComingBack;
    llvm::DenseSet<const llvm::Function *> DefinedForking;
};

// True when control may leave the function inside the call (exit, longjmp,
// an exception with no landing pad here).
bool mayLeaveMidBlock(const llvm::CallBase &Call, const CalleeFacts &Facts);

// True when code can go on the edge to successor SuccIndex of From's
// terminator: not out of indirectbr or callbr, whose edges cannot be split,
// nor into an exception pad other than a landing pad, unless the edge is
// its source's only way out or its destination's only way in.
bool branchCanBeCounted(const llvm::BasicBlock &From, unsigned SuccIndex);

// The graph of F; edge costs from the static estimate (block frequency times
// branch probability) when BFI and BPI are given, 0 otherwise.
RoutineGraph planRoutine(llvm::Function &F, const llvm::BlockFrequencyInfo *BFI,
                         const llvm::BranchProbabilityInfo *BPI, const CalleeFacts &Facts);

// Quarl's graph of the plan, costs set, nothing instrumented; null when
// memory runs out.
QuarlInstGraph *buildQuarlGraph(const RoutineGraph &Plan);

} // namespace quarl_llvm
