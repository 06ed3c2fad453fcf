// Instrumentation: Quarl chooses the counters over each function's graph,
// a 64-bit counter is incremented on each counted edge, and the module
// registers its table of functions (key, checksum, encoded graph, counters)
// with the training runtime from a constructor.
#include "llvm/IR/CFG.h"
#include "llvm/IR/Constants.h"
#include "llvm/IR/IRBuilder.h"
#include "llvm/IR/Module.h"
#include "llvm/Support/CommandLine.h"
#include "llvm/Transforms/Utils/BasicBlockUtils.h"
#include "llvm/Transforms/Utils/ModuleUtils.h"

#include "QuarlPasses.h"
#include "quarl_profile.h"

using namespace llvm;

static cl::opt<bool> AtomicCounters("quarl-atomic-counters",
                                    cl::desc("Quarl: atomic counter increments (also "
                                             "QUARL_ATOMIC_COUNTERS=1)"));
static cl::opt<bool> NaiveCounts("quarl-naive-counts", cl::Hidden,
                                 cl::desc("Quarl: count every block's entries directly (for tests; "
                                          "also QUARL_NAIVE_COUNTS=1)"));

namespace quarl_llvm {
namespace {

// Where a counter goes: in the code at the edge's own place, or on a branch
// edge at the end of its source or the start of its destination when the
// edge is the only way out or in, else in a block split onto the edge.
enum class CounterSite { Fixed, EndOfSource, StartOfDest, SplitLandingPad, SplitEdge, Nowhere };

CounterSite counterSite(const PlannedEdge &Edge)
{
    if (Edge.Kind == EdgeKind::Virtual)
        return CounterSite::Nowhere;
    if (Edge.Kind != EdgeKind::Branch)
        return CounterSite::Fixed;
    if (Edge.From->getUniqueSuccessor() == Edge.To)
        return CounterSite::EndOfSource;
    if (Edge.To->getUniquePredecessor() == Edge.From)
        return CounterSite::StartOfDest;
    if (Edge.To->isLandingPad())
        return CounterSite::SplitLandingPad;
    // Edges out of indirectbr and callbr, and into other EH pads, cannot be
    // split.
    const Instruction *Term = Edge.From->getTerminator();
    if (isa<IndirectBrInst>(Term) || isa<CallBrInst>(Term) || Edge.To->isEHPad())
        return CounterSite::Nowhere;
    return CounterSite::SplitEdge;
}

Instruction *fixedPlace(const PlannedEdge &Edge)
{
    switch (Edge.Kind) {
    case EdgeKind::FunctionEntry:
        return &*Edge.From->getFirstInsertionPt();
    case EdgeKind::AfterCall:
        return Edge.Call->getNextNode();
    default: // a return; nothing may come between a musttail call and it
        if (CallInst *Tail = Edge.From->getTerminatingMustTailCall())
            return Tail;
        return Edge.From->getTerminator();
    }
}

// The instruction the counter goes before, splitting the edge if needed.
Instruction *insertionPoint(const PlannedEdge &Edge)
{
    BasicBlock *From = Edge.From, *To = Edge.To;
    switch (counterSite(Edge)) {
    case CounterSite::Fixed:
        return fixedPlace(Edge);
    case CounterSite::EndOfSource:
        return From->getTerminator();
    case CounterSite::StartOfDest:
        return &*To->getFirstInsertionPt();
    case CounterSite::SplitLandingPad: {
        SmallVector<BasicBlock *, 2> NewBlocks;
        SplitLandingPadPredecessors(To, {From}, ".quarl", ".quarl.rest", NewBlocks);
        return &*NewBlocks[0]->getFirstInsertionPt();
    }
    case CounterSite::SplitEdge: {
        Instruction *Term = From->getTerminator();
        for (unsigned I = 0; I < Term->getNumSuccessors(); ++I)
            if (Term->getSuccessor(I) == To)
                return &*SplitCriticalEdge(Term, I, CriticalEdgeSplittingOptions().setMergeIdenticalEdges())
                             ->getFirstInsertionPt();
        break;
    }
    case CounterSite::Nowhere:
        break;
    }
    llvm_unreachable("counters are placed only where counterSite() finds a place");
}

class Instrumenter {
public:
    explicit Instrumenter(bool Atomic) : Atomic(Atomic) {}

    struct Record {
        std::string Key;
        uint64_t Checksum;
        uint32_t Flags, NumBlocks, NumNodes;
        std::vector<uint32_t> Words;
        GlobalVariable *Counters;
        uint32_t NumCounters;
    };

    bool instrument(Function &F, FunctionAnalysisManager &FAM, const CalleeFacts &Facts, Record &Out);
    void registerTable(Module &M, const std::vector<Record> &Records);

private:
    GlobalVariable *counterArray(Module &M, Function &F, uint32_t Count);
    void increment(Instruction *Before, GlobalVariable *Counters, uint32_t Index);
    bool Atomic;
};

GlobalVariable *Instrumenter::counterArray(Module &M, Function &F, uint32_t Count)
{
    auto *Type = ArrayType::get(Type::getInt64Ty(M.getContext()), Count);
    return new GlobalVariable(M, Type, false, GlobalValue::PrivateLinkage,
                              ConstantAggregateZero::get(Type), "__quarl_counters." + F.getName());
}

void Instrumenter::increment(Instruction *Before, GlobalVariable *Counters, uint32_t Index)
{
    IRBuilder<> B(Before);
    Value *Slot = B.CreateConstInBoundsGEP2_64(Counters->getValueType(), Counters, 0, Index);
    if (Atomic) {
        B.CreateAtomicRMW(AtomicRMWInst::Add, Slot, B.getInt64(1), MaybeAlign(8),
                          AtomicOrdering::Monotonic);
        return;
    }
    // Volatile, so that the optimiser leaves the update as it is: as plain
    // loads and stores, every counter update is work for GVN, InstCombine
    // and the memory passes all through the pipeline, which made the
    // instrumented -O2 build a quarter slower to compile; volatile, it
    // costs a few percent, and the counted program runs about as fast.
    Value *Count = B.CreateLoad(B.getInt64Ty(), Slot, /*isVolatile=*/true, "quarl.count");
    B.CreateStore(B.CreateAdd(Count, B.getInt64(1)), Slot, /*isVolatile=*/true);
}

bool Instrumenter::instrument(Function &F, FunctionAnalysisManager &FAM, const CalleeFacts &Facts,
                              Record &Out)
{
    RoutineGraph Plan = planFunction(F, FAM, Facts);
    Placement Placed;
    if (!placeCounters(Plan, Placed)) {
        warn(F, "no counter placement found; not instrumented");
        return false;
    }
    Module &M = *F.getParent();
    Out.Key = profileKey(F);
    Out.Checksum = quarl_profile_checksum(Placed.Words.data(), uint32_t(Placed.Words.size()));
    Out.NumBlocks = Plan.NumBlocks;
    Out.NumNodes = Plan.NumNodes;
    Out.Words = Placed.Words;
    if (NaiveCounts || envFlag("QUARL_NAIVE_COUNTS")) {
        // Test mode: every real block counts its own entries.
        Out.Flags = QUARL_PROFILE_DIRECT_COUNTS;
        Out.NumCounters = Plan.NumBlocks;
        Out.Counters = counterArray(M, F, Out.NumCounters);
        std::vector<BasicBlock *> Blocks;
        for (BasicBlock &BB : F)
            Blocks.push_back(&BB);
        for (uint32_t I = 0; I < Blocks.size(); ++I)
            increment(&*Blocks[I]->getFirstInsertionPt(), Out.Counters, I);
        return true;
    }
    std::vector<std::pair<const PlannedEdge *, uint32_t>> Counted;
    for (size_t E = 0; E < Plan.Edges.size(); ++E) {
        if (Placed.CounterOfEdge[E] < 0)
            continue;
        if (counterSite(Plan.Edges[E]) == CounterSite::Nowhere) {
            warn(F, "a counter falls on an edge where no code can go; not instrumented");
            return false;
        }
        Counted.push_back({&Plan.Edges[E], uint32_t(Placed.CounterOfEdge[E])});
    }
    Out.Flags = 0;
    Out.NumCounters = Placed.NumCounters;
    Out.Counters = counterArray(M, F, Out.NumCounters);
    for (const auto &[Edge, Index] : Counted)
        increment(insertionPoint(*Edge), Out.Counters, Index);
    return true;
}

// The module's table of functions and the constructor that hands it to the
// runtime, in the layout of QuarlRtFunction and QuarlRtModule.
void Instrumenter::registerTable(Module &M, const std::vector<Record> &Records)
{
    LLVMContext &Ctx = M.getContext();
    Type *I32 = Type::getInt32Ty(Ctx), *I64 = Type::getInt64Ty(Ctx);
    PointerType *I8Ptr = Type::getInt8PtrTy(Ctx);
    auto *FunctionTy = StructType::create(Ctx, {I8Ptr, I64, I32, I32, I32, I32, I32, Type::getInt32PtrTy(Ctx),
                                                Type::getInt64PtrTy(Ctx)},
                                          "quarl.function");
    auto *ModuleTy = StructType::create(Ctx, {I32, I32, FunctionTy->getPointerTo(), I8Ptr}, "quarl.module");
    std::vector<Constant *> Entries;
    for (const Record &R : Records) {
        Constant *Key = ConstantDataArray::getString(Ctx, R.Key);
        auto *KeyVar = new GlobalVariable(M, Key->getType(), true, GlobalValue::PrivateLinkage, Key, "__quarl_key");
        Constant *Words = ConstantDataArray::get(Ctx, ArrayRef<uint32_t>(R.Words));
        auto *WordsVar = new GlobalVariable(M, Words->getType(), true, GlobalValue::PrivateLinkage, Words, "__quarl_words");
        Entries.push_back(ConstantStruct::get(
            FunctionTy, {ConstantExpr::getPointerCast(KeyVar, I8Ptr), ConstantInt::get(I64, R.Checksum),
                         ConstantInt::get(I32, R.Flags), ConstantInt::get(I32, R.NumBlocks),
                         ConstantInt::get(I32, R.NumNodes), ConstantInt::get(I32, R.Words.size()),
                         ConstantInt::get(I32, R.NumCounters),
                         ConstantExpr::getPointerCast(WordsVar, Type::getInt32PtrTy(Ctx)),
                         ConstantExpr::getPointerCast(R.Counters, Type::getInt64PtrTy(Ctx))}));
    }
    auto *TableTy = ArrayType::get(FunctionTy, Entries.size());
    auto *Table = new GlobalVariable(M, TableTy, true, GlobalValue::PrivateLinkage,
                                     ConstantArray::get(TableTy, Entries), "__quarl_functions");
    auto *Descriptor = new GlobalVariable(
        M, ModuleTy, false, GlobalValue::PrivateLinkage,
        ConstantStruct::get(ModuleTy, {ConstantInt::get(I32, 1), ConstantInt::get(I32, Entries.size()),
                                       ConstantExpr::getPointerCast(Table, FunctionTy->getPointerTo()),
                                       ConstantPointerNull::get(I8Ptr)}),
        "__quarl_module");
    FunctionCallee Register = M.getOrInsertFunction(
        "__quarl_register_module", FunctionType::get(Type::getVoidTy(Ctx), {ModuleTy->getPointerTo()}, false));
    Function *Ctor = Function::Create(FunctionType::get(Type::getVoidTy(Ctx), false),
                                      GlobalValue::InternalLinkage, "__quarl_module_ctor", M);
    IRBuilder<> B(BasicBlock::Create(Ctx, "", Ctor));
    B.CreateCall(Register, {Descriptor});
    B.CreateRetVoid();
    appendToGlobalCtors(M, Ctor, 0);
}

} // namespace

PreservedAnalyses QuarlInstrumentPass::run(Module &M, ModuleAnalysisManager &MAM)
{
    Instrumenter Inst(AtomicCounters || envFlag("QUARL_ATOMIC_COUNTERS"));
    FunctionAnalysisManager &FAM = MAM.getResult<FunctionAnalysisManagerModuleProxy>(M).getManager();
    CalleeFacts Facts = CalleeFacts::of(M, FAM);
    std::vector<Instrumenter::Record> Records;
    for (Function *F : handledFunctions(M)) {
        Instrumenter::Record R;
        if (Inst.instrument(*F, FAM, Facts, R))
            Records.push_back(std::move(R));
        FAM.invalidate(*F, PreservedAnalyses::none());
    }
    if (Records.empty())
        return PreservedAnalyses::all();
    Inst.registerTable(M, Records);
    return PreservedAnalyses::none();
}

} // namespace quarl_llvm
