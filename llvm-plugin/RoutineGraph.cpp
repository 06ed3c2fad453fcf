#include "RoutineGraph.h"

#include <limits>

#include "llvm/ADT/SmallPtrSet.h"
#include "llvm/Analysis/BlockFrequencyInfo.h"
#include "llvm/Analysis/BranchProbabilityInfo.h"
#include "llvm/Analysis/TargetLibraryInfo.h"
#include "llvm/IR/CFG.h"
#include "llvm/IR/InstrTypes.h"
#include "llvm/IR/Instructions.h"
#include "llvm/IR/InstIterator.h"
#include "llvm/IR/IntrinsicInst.h"
#include "llvm/IR/Module.h"

#include "LLVMCompat.h"

using namespace llvm;

namespace quarl_llvm {
namespace {

// Edges where no counter can go are taken into the spanning tree first.
const int64_t NeverCounted = std::numeric_limits<int64_t>::max();
const uint64_t CostCap = uint64_t{1} << 60;

int64_t capped(uint64_t Cost) { return int64_t(Cost < CostCap ? Cost : CostCap); }

bool hasReturnsTwiceAttr(const CallBase &Call) { return Call.hasFnAttr(Attribute::ReturnsTwice); }

// fork and vfork (declared here, defined by the C library).
bool isFork(const Function &Callee)
{
    StringRef Name = Callee.getName();
    return Callee.isDeclaration() && (Name == "fork" || Name == "vfork" || Name == "__fork");
}

struct Planner {
    Planner(const BlockFrequencyInfo *BFI, const BranchProbabilityInfo *BPI, const CalleeFacts &Facts)
        : BFI(BFI), BPI(BPI), Facts(Facts)
    {
    }

    const BlockFrequencyInfo *BFI;
    const BranchProbabilityInfo *BPI;
    const CalleeFacts &Facts;
    RoutineGraph Graph;
    DenseMap<const BasicBlock *, uint32_t> NodeOf;

    uint64_t frequency(const BasicBlock *BB) const
    {
        return BFI ? BFI->getBlockFreq(BB).getFrequency() : 0;
    }

    void add(PlannedEdge Edge) { Graph.Edges.push_back(Edge); }

    void addVirtual(uint32_t Src, uint32_t Dest)
    {
        add({Src, Dest, EdgeKind::Virtual, nullptr, nullptr, NeverCounted, true});
    }

    // The block's stretches, split after each call that may leave or return
    // twice, then its terminator's edges from the last stretch.
    void planBlock(BasicBlock &BB)
    {
        uint32_t Stretch = NodeOf[&BB];
        for (Instruction &I : BB) {
            auto *Call = dyn_cast<CallInst>(&I);
            // Nothing may stand between a musttail call and its return: the
            // call is counted as part of the return.
            if (!Call || Call->isMustTailCall())
                continue;
            // The first return of a call that returns twice comes back.
            bool Twice = Facts.returnsTwice(*Call), Leaves = !Twice && mayLeaveMidBlock(*Call, Facts);
            if (!Leaves && !Twice)
                continue;
            uint32_t Returned = Stretch;
            if (Twice) {
                // The counter right after the call sees every return: the
                // later ones join the first before it.
                Returned = Graph.NumNodes++;
                addVirtual(Stretch, Returned);
                addVirtual(PseudoEntry, Returned);
            }
            uint32_t Next = Graph.NumNodes++;
            add({Returned, Next, EdgeKind::AfterCall, nullptr, Call, capped(frequency(&BB)), false});
            if (Leaves)
                addVirtual(Stretch, PseudoExit);
            Stretch = Next;
        }
        Instruction *Term = BB.getTerminator();
        if (auto *Invoke = dyn_cast<InvokeInst>(Term); Invoke && mayLeaveMidBlock(*Invoke, Facts))
            addVirtual(Stretch, PseudoExit);
        if (succ_empty(&BB)) { // ret, resume, unreachable
            add({Stretch, PseudoExit, EdgeKind::Return, &BB, nullptr,
                 capped(frequency(&BB)), true});
            return;
        }
        // indirectbr and callbr cannot count one of several edges to a
        // block apart from the others: those edges are one transfer.
        bool EachOwnEdge = !isa<IndirectBrInst>(Term) && !isa<CallBrInst>(Term);
        SmallPtrSet<BasicBlock *, 8> Seen;
        for (unsigned I = 0; I < Term->getNumSuccessors(); ++I) {
            BasicBlock *Succ = Term->getSuccessor(I);
            bool Shared = !Seen.insert(Succ).second;
            if (Shared && !EachOwnEdge)
                continue;
            uint64_t Cost = 0;
            if (BPI)
                Cost = BPI->getEdgeProbability(&BB, I).scale(frequency(&BB));
            uint32_t Dest = NodeOf[Succ];
            if (Dest == Stretch || Shared) {
                // A branch back to its own block goes through a node of its
                // own: flow conservation takes an edge from a node to itself
                // as entering it only, which a branch that both leaves and
                // enters the block is not. So does a switch case whose block
                // an earlier case goes to, so that each case has a count of
                // its own, as the optimiser's branch weights have.
                Dest = Graph.NumNodes++;
                addVirtual(Dest, NodeOf[Succ]);
            }
            add({Stretch, Dest, EdgeKind::Branch, &BB, nullptr,
                 branchCanBeCounted(BB, I) ? capped(Cost) : NeverCounted, false, I});
        }
    }

    // Nodes reachable from the entry; and a virtual way out from those that
    // cannot reach the exit (a loop with no way out), so that flow is
    // conserved everywhere.
    void markReachableAndCloseLoops()
    {
        std::vector<std::vector<uint32_t>> Out(Graph.NumNodes), In(Graph.NumNodes);
        for (const PlannedEdge &E : Graph.Edges) {
            Out[E.Src].push_back(E.Dest);
            In[E.Dest].push_back(E.Src);
        }
        auto walk = [&](uint32_t Start, const std::vector<std::vector<uint32_t>> &Next) {
            std::vector<bool> Seen(Graph.NumNodes, false);
            std::vector<uint32_t> Work = {Start};
            Seen[Start] = true;
            while (!Work.empty()) {
                uint32_t N = Work.back();
                Work.pop_back();
                for (uint32_t M : Next[N])
                    if (!Seen[M])
                        Seen[M] = true, Work.push_back(M);
            }
            return Seen;
        };
        Graph.Reachable = walk(PseudoEntry, Out);
        std::vector<bool> ReachesExit = walk(PseudoExit, In);
        for (uint32_t N = 2; N < Graph.NumNodes; ++N) {
            if (!Graph.Reachable[N] || ReachesExit[N])
                continue;
            addVirtual(N, PseudoExit); // one per stuck region: the walk takes in the rest
            In[PseudoExit].push_back(N);
            ReachesExit = walk(PseudoExit, In);
        }
        Graph.Reachable[PseudoExit] = true;
    }
};

} // namespace

bool CalleeFacts::libraryFunctionComesBack(const CallBase &Call, const Function &Callee) const
{
    // The caller's library info: -fno-builtin-NAME is a per-function choice.
    auto &Caller = const_cast<Function &>(*Call.getFunction()); // analyses take no const
    const TargetLibraryInfo &TLI = FAM->getResult<TargetLibraryAnalysis>(Caller);
    LibFunc Func;
    if (!TLI.getLibFunc(Callee, Func) || !TLI.has(Func))
        return false;
    switch (Func) {
    case LibFunc_execl:
    case LibFunc_execle:
    case LibFunc_execlp:
    case LibFunc_execv:
    case LibFunc_execvP:
    case LibFunc_execve:
    case LibFunc_execvp:
    case LibFunc_execvpe:
    case LibFunc_fork:
    case LibFunc_qsort:
        return false;
    default:
        break;
    }
    StringRef Name = Callee.getName(); // operator new and new[], Itanium and MSVC
    return !compat::startsWith(Name, "_Znw") && !compat::startsWith(Name, "_Zna") &&
           !compat::startsWith(Name, "??2@") && !compat::startsWith(Name, "??_U@");
}

bool CalleeFacts::comesBack(const CallBase &Call) const
{
    if (Call.hasFnAttr(Attribute::WillReturn))
        return true;
    const Function *Callee = Call.getCalledFunction();
    if (!Callee)
        return false;
    if (Callee->isDeclaration())
        return libraryFunctionComesBack(Call, *Callee);
    return DefinedComingBack.count(Callee) != 0;
}

CalleeFacts CalleeFacts::of(Module &M, FunctionAnalysisManager &FAM)
{
    CalleeFacts Facts(FAM);
    for (Function &F : M)
        if (!F.isDeclaration() && !F.isInterposable() && !F.hasAvailableExternallyLinkage())
            Facts.DefinedComingBack.insert(&F);
    // Start from every candidate and drop those with a call that cannot come
    // back; dropping one drops the callers that relied on it.
    DenseMap<const Function *, SmallVector<const Function *, 4>> ReliedOnBy;
    SmallVector<const Function *, 16> Dropped;
    for (const Function *F : Facts.DefinedComingBack) {
        for (const Instruction &I : instructions(*F)) {
            const auto *Call = dyn_cast<CallBase>(&I);
            if (!Call)
                continue;
            bool ComesBack = !Call->doesNotReturn() && !hasReturnsTwiceAttr(*Call);
            if (ComesBack && (isa<IntrinsicInst>(Call) || Call->isInlineAsm() ||
                              Call->hasFnAttr(Attribute::WillReturn)))
                continue;
            const Function *Callee = Call->getCalledFunction();
            if (ComesBack && Callee && Facts.DefinedComingBack.count(Callee)) {
                ReliedOnBy[Callee].push_back(F); // decided below
                continue;
            }
            if (!ComesBack || !Facts.comesBack(*Call)) {
                Dropped.push_back(F);
                break;
            }
        }
    }
    Facts.findForking(M);
    for (const Function *F : Dropped)
        Facts.DefinedComingBack.erase(F);
    while (!Dropped.empty()) {
        const Function *F = Dropped.pop_back_val();
        for (const Function *Caller : ReliedOnBy.lookup(F))
            if (Facts.DefinedComingBack.erase(Caller))
                Dropped.push_back(Caller);
    }
    return Facts;
}

void CalleeFacts::findForking(Module &M)
{
    // From the functions that call fork, through their callers.
    DenseMap<const Function *, SmallVector<const Function *, 4>> CallersOf;
    SmallVector<const Function *, 8> Work;
    for (const Function &F : M) {
        if (F.isDeclaration())
            continue;
        for (const Instruction &I : instructions(F)) {
            const auto *Call = dyn_cast<CallBase>(&I);
            const Function *Callee = Call ? Call->getCalledFunction() : nullptr;
            if (!Callee)
                continue;
            if (isFork(*Callee) && DefinedForking.insert(&F).second)
                Work.push_back(&F);
            else if (!Callee->isDeclaration())
                CallersOf[Callee].push_back(&F);
        }
    }
    while (!Work.empty())
        for (const Function *Caller : CallersOf.lookup(Work.pop_back_val()))
            if (DefinedForking.insert(Caller).second)
                Work.push_back(Caller);
}

bool mayLeaveMidBlock(const CallBase &Call, const CalleeFacts &Facts)
{
    if (isa<IntrinsicInst>(Call) || Call.isInlineAsm())
        return false;
    // A call that never returns ends its block with unreachable, which is
    // a way out of its own.
    if (Call.doesNotReturn())
        return false;
    // An invoke's exception takes its unwind edge, an edge of the graph.
    bool UnwindsOut = !isa<InvokeInst>(Call) && !Call.doesNotThrow();
    return UnwindsOut || !Facts.comesBack(Call);
}

bool CalleeFacts::returnsTwice(const CallBase &Call) const
{
    if (hasReturnsTwiceAttr(Call))
        return true;
    const Function *Callee = Call.getCalledFunction();
    return Callee && (isFork(*Callee) || DefinedForking.count(Callee) != 0);
}

bool branchCanBeCounted(const BasicBlock &From, unsigned SuccIndex)
{
    const Instruction *Term = From.getTerminator();
    const BasicBlock *To = Term->getSuccessor(SuccIndex);
    if (From.getSingleSuccessor() == To)
        return true; // at the end of From
    if (To->isEHPad() && !To->isLandingPad())
        return false; // the pad must come first, and a catchswitch has no room
    return To->getSinglePredecessor() == &From || (!isa<IndirectBrInst>(Term) && !isa<CallBrInst>(Term));
}

RoutineGraph planRoutine(Function &F, const BlockFrequencyInfo *BFI, const BranchProbabilityInfo *BPI,
                         const CalleeFacts &Facts)
{
    Planner P(BFI, BPI, Facts);
    for (BasicBlock &BB : F)
        P.NodeOf[&BB] = 2 + P.Graph.NumBlocks++;
    P.Graph.NumNodes = 2 + P.Graph.NumBlocks;
    P.add({PseudoEntry, 2, EdgeKind::FunctionEntry, &F.getEntryBlock(), nullptr,
           capped(P.frequency(&F.getEntryBlock())), true});
    for (BasicBlock &BB : F)
        P.planBlock(BB);
    P.markReachableAndCloseLoops();
    P.addVirtual(PseudoExit, PseudoEntry);
    return std::move(P.Graph);
}

QuarlInstGraph *buildQuarlGraph(const RoutineGraph &Plan)
{
    QuarlInstGraph *Graph = quarl_inst_graph_create();
    if (!Graph)
        return nullptr;
    for (uint32_t N = 0; N < Plan.NumNodes; ++N) {
        QuarlInstNode *Node = quarl_inst_graph_add_node(Graph, N);
        if (!Node) {
            quarl_inst_graph_delete(Graph);
            return nullptr;
        }
        Node->m_is_reachable = Plan.Reachable[N];
        Node->m_is_pseudo_entry = N == PseudoEntry;
        Node->m_is_pseudo_exit = N == PseudoExit;
        Node->m_is_entry = N == 2;
    }
    for (const PlannedEdge &E : Plan.Edges) {
        QuarlInstEdge *Edge =
            quarl_inst_graph_add_edge(Graph, Graph->m_node_vec[E.Src], Graph->m_node_vec[E.Dest]);
        if (!Edge) {
            quarl_inst_graph_delete(Graph);
            return nullptr;
        }
        Edge->m_is_reachable = Plan.Reachable[E.Src];
        Edge->m_is_pseudo = E.Pseudo;
        Edge->m_cost = E.Cost;
    }
    return Graph;
}

} // namespace quarl_llvm
