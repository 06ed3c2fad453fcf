// Instrumentation: Quarl chooses the counters over each function's graph,
// a 64-bit counter is incremented on each counted edge, each value site
// hands its callee or length to the runtime, and the module registers its
// table of functions (key, checksum, encoded graph, counters, value sites)
// and of the functions whose address is taken with the training runtime
// from a constructor.
#include "llvm/IR/CFG.h"
#include "llvm/IR/Constants.h"
#include "llvm/IR/IRBuilder.h"
#include "llvm/IR/IntrinsicInst.h"
#include "llvm/IR/Module.h"
#include "llvm/IR/ValueSymbolTable.h"
#include "llvm/Support/CommandLine.h"
#include "llvm/Transforms/Utils/BasicBlockUtils.h"
#include "llvm/Transforms/Utils/ModuleUtils.h"

#include "LLVMCompat.h"
#include "QuarlPasses.h"
#include "quarl_profile.h"
#include "quarl_rt.h"

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
// Branch edges are looked at as the code is now: an earlier split may have
// moved an invoke's unwind edge to a landing pad of its own.
enum class CounterSite { Fixed, EndOfSource, StartOfDest, SplitLandingPad, SplitEdge, Nowhere };

BasicBlock *successorNow(const PlannedEdge &Edge)
{
    return Edge.From->getTerminator()->getSuccessor(Edge.SuccIndex);
}

CounterSite counterSite(const PlannedEdge &Edge)
{
    if (Edge.Kind == EdgeKind::Virtual)
        return CounterSite::Nowhere;
    if (Edge.Kind != EdgeKind::Branch)
        return CounterSite::Fixed;
    if (!branchCanBeCounted(*Edge.From, Edge.SuccIndex))
        return CounterSite::Nowhere;
    BasicBlock *To = successorNow(Edge);
    if (Edge.From->getSingleSuccessor() == To)
        return CounterSite::EndOfSource;
    if (To->getSinglePredecessor() == Edge.From)
        return CounterSite::StartOfDest;
    if (To->isLandingPad())
        return CounterSite::SplitLandingPad;
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

// A name for a block the plugin adds next to Near: Near's name with the
// suffix ".quarl", numbered before the suffix when taken, so that an IR
// dump tells the plugin's blocks from the function's own.
std::string addedBlockName(const BasicBlock &Near)
{
    const Function &F = *Near.getParent();
    if (F.getContext().shouldDiscardValueNames())
        return "";
    std::string Name = (Near.getName() + ".quarl").str();
    for (unsigned N = 1; F.getValueSymbolTable()->lookup(Name); ++N)
        Name = (Near.getName() + "." + Twine(N) + ".quarl").str();
    return Name;
}

// The instruction the counter goes before, splitting the edge if needed.
Instruction *insertionPoint(const PlannedEdge &Edge)
{
    BasicBlock *From = Edge.From;
    switch (counterSite(Edge)) {
    case CounterSite::Fixed:
        return fixedPlace(Edge);
    case CounterSite::EndOfSource:
        return From->getTerminator();
    case CounterSite::StartOfDest:
        return &*successorNow(Edge)->getFirstInsertionPt();
    case CounterSite::SplitLandingPad: {
        // The pad is copied into a block for this invoke alone and one for
        // the others, both joining the original block.
        BasicBlock *Pad = successorNow(Edge);
        SmallVector<BasicBlock *, 2> NewBlocks;
        SplitLandingPadPredecessors(Pad, {From}, ".quarl", ".quarl.rest", NewBlocks);
        for (BasicBlock *Added : NewBlocks) {
            Added->setName("");
            Added->setName(addedBlockName(*Pad));
        }
        return &*NewBlocks[0]->getFirstInsertionPt();
    }
    case CounterSite::SplitEdge: {
        // Only this successor: another case to the same block is counted
        // on an edge of its own.
        BasicBlock *Split = SplitCriticalEdge(From->getTerminator(), Edge.SuccIndex, CriticalEdgeSplittingOptions(),
                                              addedBlockName(*successorNow(Edge)));
        return &*Split->getFirstInsertionPt();
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
        GlobalVariable *Sites = nullptr;
        uint32_t NumSites = 0;
    };

    bool instrument(Function &F, FunctionAnalysisManager &FAM, const CalleeFacts &Facts, Record &Out);
    void registerTable(Module &M, const std::vector<Record> &Records, const std::vector<Function *> &Targets);

private:
    GlobalVariable *counterArray(Module &M, Function &F, uint32_t Count);
    void increment(Instruction *Before, GlobalVariable *Counters, uint32_t Index);
    void recordValues(Function &F, const std::vector<ValueSite> &Sites, Record &Out);
    bool Atomic;
};

// The layout of QuarlRtValueSite.
StructType *valueSiteType(LLVMContext &Ctx)
{
    Type *I32 = Type::getInt32Ty(Ctx), *I64 = Type::getInt64Ty(Ctx);
    auto *Slots = ArrayType::get(I64, QUARL_RT_SITE_VALUES);
    return StructType::get(Ctx, {I32, I32, I64, Slots, Slots});
}

// A function of the runtime, referred to weakly: an instrumented object
// links without the runtime too, so that the link probes of configure
// scripts and makefiles (which pass the compile flags but not the
// libraries) find what they find in the plain build. A program linked so
// runs uncounted.
FunctionCallee runtimeFunction(Module &M, StringRef Name, FunctionType *Type)
{
    FunctionCallee Callee = M.getOrInsertFunction(Name, Type);
    if (auto *F = dyn_cast<Function>(Callee.getCallee()))
        F->setLinkage(GlobalValue::ExternalWeakLinkage);
    return Callee;
}

// Calls Callee before Before only where the runtime is linked in.
void callIfLinked(Instruction *Before, FunctionCallee Callee, ArrayRef<Value *> Args)
{
    BasicBlock *Head = Before->getParent();
    Value *Linked = IRBuilder<>(Before).CreateIsNotNull(Callee.getCallee());
    Instruction *Then = SplitBlockAndInsertIfThen(Linked, Before, false);
    Then->getParent()->setName(addedBlockName(*Head));
    Before->getParent()->setName(addedBlockName(*Head));
    IRBuilder<>(Then).CreateCall(Callee, Args);
}

// The runtime's recording function for a kind of site: it only writes the
// site's slots, never throws and always returns.
FunctionCallee recorder(Module &M, uint32_t Kind)
{
    LLVMContext &Ctx = M.getContext();
    Type *Value = Type::getInt64Ty(Ctx);
    if (Kind == QUARL_VALUE_CALL_TARGET)
        Value = compat::bytePointer(Ctx);
    FunctionCallee Callee = runtimeFunction(
        M, Kind == QUARL_VALUE_CALL_TARGET ? "__quarl_record_target" : "__quarl_record_size",
        FunctionType::get(Type::getVoidTy(Ctx), {compat::pointerTo(valueSiteType(Ctx)), Value}, false));
    if (auto *F = dyn_cast<Function>(Callee.getCallee())) {
        F->addFnAttr(Attribute::NoUnwind);
        F->addFnAttr(Attribute::WillReturn);
        F->setOnlyAccessesArgMemory();
        compat::setDoesNotCapture(*F, 0);
        if (Kind == QUARL_VALUE_CALL_TARGET) {
            compat::setDoesNotCapture(*F, 1);
            F->addParamAttr(1, Attribute::ReadNone);
        }
    }
    return Callee;
}

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

// The length of a memory operation: memcpy, memmove and memset's, or
// memcmp and bcmp's third argument.
Value *lengthOf(CallBase &Memop)
{
    if (auto *Intrinsic = dyn_cast<MemIntrinsic>(&Memop))
        return Intrinsic->getLength();
    return Memop.getArgOperand(2);
}

// Each site's value goes to the runtime just before the site runs.
void Instrumenter::recordValues(Function &F, const std::vector<ValueSite> &Sites, Record &Out)
{
    if (Sites.empty())
        return;
    Module &M = *F.getParent();
    LLVMContext &Ctx = M.getContext();
    StructType *SiteTy = valueSiteType(Ctx);
    Type *I32 = Type::getInt32Ty(Ctx);
    Constant *NoValues = ConstantAggregateZero::get(SiteTy->getElementType(3));
    std::vector<Constant *> Initial;
    for (const ValueSite &Site : Sites)
        Initial.push_back(ConstantStruct::get(
            SiteTy, {ConstantInt::get(I32, Site.Kind), ConstantInt::get(I32, Atomic ? QUARL_RT_SITE_ATOMIC : 0),
                     ConstantInt::get(Type::getInt64Ty(Ctx), 0), NoValues, NoValues}));
    auto *ArrayTy = ArrayType::get(SiteTy, Sites.size());
    Out.NumSites = uint32_t(Sites.size());
    Out.Sites = new GlobalVariable(M, ArrayTy, false, GlobalValue::PrivateLinkage,
                                   ConstantArray::get(ArrayTy, Initial), "__quarl_sites." + F.getName());
    for (uint32_t I = 0; I < Sites.size(); ++I) {
        IRBuilder<> B(Sites[I].Site);
        Value *Slot = B.CreateConstInBoundsGEP2_64(ArrayTy, Out.Sites, 0, I);
        Value *Observed;
        if (Sites[I].Kind == QUARL_VALUE_CALL_TARGET)
            Observed = B.CreatePointerCast(cast<CallBase>(Sites[I].Site)->getCalledOperand(), compat::bytePointer(Ctx));
        else
            Observed = B.CreateZExtOrTrunc(lengthOf(*cast<CallBase>(Sites[I].Site)), B.getInt64Ty());
        callIfLinked(Sites[I].Site, recorder(M, Sites[I].Kind), {Slot, Observed});
    }
}

bool Instrumenter::instrument(Function &F, FunctionAnalysisManager &FAM, const CalleeFacts &Facts,
                              Record &Out)
{
    // Sites and graph are both taken before any code is added.
    std::vector<ValueSite> Sites = valueSites(F, FAM.getResult<TargetLibraryAnalysis>(F));
    RoutineGraph Plan = planFunction(F, FAM, Facts);
    Placement Placed;
    if (!placeCounters(Plan, Placed, F)) {
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
        recordValues(F, Sites, Out);
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
    recordValues(F, Sites, Out);
    return true;
}

// The module's tables of functions and of call targets, and the
// constructor that hands them to the runtime, in the layout of
// QuarlRtFunction, QuarlRtTarget and QuarlRtModule.
void Instrumenter::registerTable(Module &M, const std::vector<Record> &Records,
                                 const std::vector<Function *> &Targets)
{
    LLVMContext &Ctx = M.getContext();
    Type *I32 = Type::getInt32Ty(Ctx), *I64 = Type::getInt64Ty(Ctx);
    PointerType *I8Ptr = compat::bytePointer(Ctx), *SitePtr = compat::pointerTo(valueSiteType(Ctx));
    PointerType *I32Ptr = compat::pointerTo(I32), *I64Ptr = compat::pointerTo(I64);
    auto *FunctionTy = StructType::create(Ctx, {I8Ptr, I64, I32, I32, I32, I32, I32, I32Ptr, I64Ptr, I32, SitePtr},
                                          "quarl.function");
    auto *TargetTy = StructType::create(Ctx, {I8Ptr, I64}, "quarl.target");
    auto *ModuleTy = StructType::create(
        Ctx, {I32, I32, compat::pointerTo(FunctionTy), I8Ptr, I32, compat::pointerTo(TargetTy)}, "quarl.module");
    std::vector<Constant *> Entries;
    for (const Record &R : Records) {
        Constant *Key = ConstantDataArray::getString(Ctx, R.Key);
        auto *KeyVar = new GlobalVariable(M, Key->getType(), true, GlobalValue::PrivateLinkage, Key, "__quarl_key");
        Constant *Words = ConstantDataArray::get(Ctx, ArrayRef<uint32_t>(R.Words));
        auto *WordsVar = new GlobalVariable(M, Words->getType(), true, GlobalValue::PrivateLinkage, Words, "__quarl_words");
        Constant *Sites = ConstantPointerNull::get(SitePtr);
        if (R.Sites)
            Sites = ConstantExpr::getPointerCast(R.Sites, SitePtr);
        Entries.push_back(ConstantStruct::get(
            FunctionTy, {ConstantExpr::getPointerCast(KeyVar, I8Ptr), ConstantInt::get(I64, R.Checksum),
                         ConstantInt::get(I32, R.Flags), ConstantInt::get(I32, R.NumBlocks),
                         ConstantInt::get(I32, R.NumNodes), ConstantInt::get(I32, R.Words.size()),
                         ConstantInt::get(I32, R.NumCounters),
                         ConstantExpr::getPointerCast(WordsVar, I32Ptr),
                         ConstantExpr::getPointerCast(R.Counters, I64Ptr),
                         ConstantInt::get(I32, R.NumSites), Sites}));
    }
    auto *TableTy = ArrayType::get(FunctionTy, Entries.size());
    auto *Table = new GlobalVariable(M, TableTy, true, GlobalValue::PrivateLinkage,
                                     ConstantArray::get(TableTy, Entries), "__quarl_functions");
    std::vector<Constant *> TargetEntries;
    for (Function *F : Targets)
        TargetEntries.push_back(ConstantStruct::get(
            TargetTy, {ConstantExpr::getPointerCast(F, I8Ptr),
                       ConstantInt::get(I64, quarl_profile_key_hash(profileKey(*F).c_str()))}));
    auto *TargetsTy = ArrayType::get(TargetTy, TargetEntries.size());
    auto *TargetTable = new GlobalVariable(M, TargetsTy, true, GlobalValue::PrivateLinkage,
                                           ConstantArray::get(TargetsTy, TargetEntries), "__quarl_targets");
    auto *Descriptor = new GlobalVariable(
        M, ModuleTy, false, GlobalValue::PrivateLinkage,
        ConstantStruct::get(ModuleTy,
                            {ConstantInt::get(I32, QUARL_RT_VERSION), ConstantInt::get(I32, Entries.size()),
                             ConstantExpr::getPointerCast(Table, compat::pointerTo(FunctionTy)),
                             ConstantPointerNull::get(I8Ptr), ConstantInt::get(I32, TargetEntries.size()),
                             ConstantExpr::getPointerCast(TargetTable, compat::pointerTo(TargetTy))}),
        "__quarl_module");
    FunctionCallee Register = runtimeFunction(
        M, "__quarl_register_module",
        FunctionType::get(Type::getVoidTy(Ctx), {compat::pointerTo(ModuleTy)}, false));
    Function *Ctor = Function::Create(FunctionType::get(Type::getVoidTy(Ctx), false),
                                      GlobalValue::InternalLinkage, "__quarl_module_ctor", M);
    callIfLinked(ReturnInst::Create(Ctx, BasicBlock::Create(Ctx, "", Ctor)), Register, {Descriptor});
    appendToGlobalCtors(M, Ctor, 0);
}

// Functions an indirect call may reach: those whose address is taken,
// declarations included (a callee defined in another module has its key
// there too).
std::vector<Function *> callTargets(Module &M)
{
    std::vector<Function *> Targets;
    for (Function &F : M)
        if (!F.isIntrinsic() && F.hasAddressTaken() && !compat::startsWith(F.getName(), "__quarl"))
            Targets.push_back(&F);
    return Targets;
}

} // namespace

PreservedAnalyses QuarlInstrumentPass::run(Module &M, ModuleAnalysisManager &MAM)
{
    Instrumenter Inst(AtomicCounters || envFlag("QUARL_ATOMIC_COUNTERS"));
    FunctionAnalysisManager &FAM = MAM.getResult<FunctionAnalysisManagerModuleProxy>(M).getManager();
    CalleeFacts Facts = CalleeFacts::of(M, FAM);
    std::vector<Function *> Targets = callTargets(M);
    std::vector<Instrumenter::Record> Records;
    for (Function *F : handledFunctions(M)) {
        Instrumenter::Record R;
        if (Inst.instrument(*F, FAM, Facts, R))
            Records.push_back(std::move(R));
        FAM.invalidate(*F, PreservedAnalyses::none());
    }
    if (Records.empty())
        return PreservedAnalyses::all();
    Inst.registerTable(M, Records, Targets);
    return PreservedAnalyses::none();
}

} // namespace quarl_llvm
