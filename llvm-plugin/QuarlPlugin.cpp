// The Quarl pass plugin for clang and opt (LLVM 14 to 22, new pass manager).
// Loaded with -fpass-plugin=quarl_llvm-N.so it instruments every defined
// function at the start of the optimisation pipeline; given a profile
// (-mllvm -quarl-profile-use=FILE, or QUARL_PROFILE_USE=FILE) it uses the
// profile there instead. Above -O0 both first tidy the functions and
// inline small callees, as LLVM's own instrumentation does.
#include <cstdlib>
#include <cstring>

#include "llvm/Analysis/BlockFrequencyInfo.h"
#include "llvm/Analysis/BranchProbabilityInfo.h"
#include "llvm/Analysis/TargetLibraryInfo.h"
#include "llvm/IR/DiagnosticInfo.h"
#include "llvm/IR/InstIterator.h"
#include "llvm/IR/IntrinsicInst.h"
#include "llvm/IR/Module.h"
#include "llvm/Passes/PassBuilder.h"
#include "llvm/Support/CommandLine.h"
#include "llvm/Transforms/IPO/GlobalDCE.h"
#include "llvm/Transforms/IPO/Inliner.h"
#include "llvm/Transforms/InstCombine/InstCombine.h"
#include "llvm/Transforms/Instrumentation/PGOInstrumentation.h"
#include "llvm/Transforms/Scalar/EarlyCSE.h"
#include "llvm/Transforms/Scalar/SROA.h"
#include "llvm/Transforms/Scalar/SimplifyCFG.h"

#include "LLVMCompat.h"
#include "QuarlPasses.h"
#include "quarl_profile.h"

using namespace llvm;

static cl::opt<std::string> ProfileUse("quarl-profile-use", cl::value_desc("FILE"),
                                       cl::desc("Quarl: optimise with the counts of this profile "
                                                "instead of instrumenting (also "
                                                "QUARL_PROFILE_USE=FILE)"));

namespace quarl_llvm {

bool envFlag(const char *Name)
{
    const char *Value = std::getenv(Name);
    return Value && *Value && std::strcmp(Value, "0") != 0;
}

void warn(Function &F, const Twine &Message)
{
    const std::string &File = F.getParent()->getSourceFileName();
    F.getContext().diagnose(
        DiagnosticInfoPGOProfile(File.c_str(), "quarl: " + F.getName() + ": " + Message, DS_Warning));
}

std::vector<Function *> handledFunctions(Module &M)
{
    std::vector<Function *> Functions;
    for (Function &F : M)
        if (!F.isDeclaration() && !F.hasAvailableExternallyLinkage() &&
            !F.hasFnAttribute(Attribute::Naked) && !compat::startsWith(F.getName(), "__quarl"))
            Functions.push_back(&F);
    return Functions;
}

std::string profileKey(const Function &F)
{
    if (F.hasLocalLinkage())
        return F.getParent()->getSourceFileName() + ":" + F.getName().str();
    return F.getName().str();
}

// memcmp and bcmp count as memory operations: LLVM specialises them for
// frequent lengths as it does memcpy.
bool isCompareOfUnknownLength(const CallBase &Call, const TargetLibraryInfo &TLI)
{
    LibFunc Func;
    const Function *Callee = Call.getCalledFunction();
    return Callee && TLI.getLibFunc(*Callee, Func) && (Func == LibFunc_memcmp || Func == LibFunc_bcmp) &&
           Call.arg_size() == 3 && !isa<ConstantInt>(Call.getArgOperand(2));
}

std::vector<ValueSite> valueSites(Function &F, const TargetLibraryInfo &TLI)
{
    std::vector<ValueSite> Sites;
    for (Instruction &I : instructions(F)) {
        auto *Call = dyn_cast<CallBase>(&I);
        if (!Call)
            continue;
        if (Call->isIndirectCall())
            Sites.push_back({&I, QUARL_VALUE_CALL_TARGET});
        else if (auto *Memop = dyn_cast<MemIntrinsic>(Call); Memop && !isa<ConstantInt>(Memop->getLength()))
            Sites.push_back({&I, QUARL_VALUE_MEMOP_SIZE});
        else if (isCompareOfUnknownLength(*Call, TLI))
            Sites.push_back({&I, QUARL_VALUE_MEMOP_SIZE});
    }
    return Sites;
}

RoutineGraph planFunction(Function &F, FunctionAnalysisManager &FAM, const CalleeFacts &Facts)
{
    return planRoutine(F, &FAM.getResult<BlockFrequencyAnalysis>(F),
                       &FAM.getResult<BranchProbabilityAnalysis>(F), Facts);
}

namespace {

// Counters chosen, every other edge checked to follow from them (counters
// forced where none does) and the graph encoded; formulas only when asked
// for, to compare the two ways of placing.
bool placeCountersWith(const RoutineGraph &Plan, bool WithFormulas, Placement &Out)
{
    QuarlInstGraph *Graph = buildQuarlGraph(Plan);
    if (!Graph)
        return false;
    bool Placed = quarl_inst_graph_select_counters(Graph) != QUARL_SELECT_COUNTERS_FAILED &&
                  (WithFormulas ? quarl_inst_graph_adjust_instrumentation(Graph)
                                : quarl_inst_graph_adjust_instrumentation_linear(Graph)) == 1;
    QuarlEncodedGraph *Encoded = Placed ? quarl_inst_graph_encode(Graph) : nullptr;
    if (Encoded) {
        Out.Words.resize(quarl_encoded_graph_length(Encoded));
        quarl_stream_reset(Encoded->m_stream);
        quarl_stream_read(Encoded->m_stream, Out.Words.data(), 4, uint32_t(Out.Words.size()));
        Out.NumCounters = Graph->m_num_counters;
        for (uint32_t E = 0; E < Graph->m_num_edges; ++E) {
            const QuarlInstEdge *Edge = Graph->m_edge_vec[E];
            Out.CounterOfEdge.push_back(Edge->m_is_instrumented ? int64_t(Edge->m_counter_idx) : -1);
        }
        quarl_encoded_graph_delete(Encoded);
    }
    quarl_inst_graph_delete(Graph);
    return Encoded != nullptr;
}

} // namespace

bool placeCounters(const RoutineGraph &Plan, Placement &Out, Function &F)
{
    bool Placed = placeCountersWith(Plan, false, Out);
    if (envFlag("QUARL_CHECK_PLACEMENT")) {
        // Test mode: the placement with formulas must give the same.
        Placement WithFormulas;
        if (placeCountersWith(Plan, true, WithFormulas) != Placed ||
            (Placed && (WithFormulas.Words != Out.Words || WithFormulas.CounterOfEdge != Out.CounterOfEdge ||
                        WithFormulas.NumCounters != Out.NumCounters)))
            F.getContext().diagnose(DiagnosticInfoPGOProfile(
                F.getParent()->getSourceFileName().c_str(),
                "quarl: " + F.getName() + ": placement with formulas differs", DS_Error));
    }
    return Placed;
}

} // namespace quarl_llvm

namespace {

// The profile to use, if one is named; instrumentation otherwise.
std::string profileToUse()
{
    if (!ProfileUse.empty())
        return ProfileUse;
    const char *Path = std::getenv("QUARL_PROFILE_USE");
    return Path ? Path : "";
}

// What LLVM's own instrumentation runs before it counts: clang's blocks
// tidied (allocas into registers, blocks merged) and callees small enough
// to inline anyway inlined first, with the pre-inliner's thresholds. A
// small function is then counted once in each caller, in context, instead
// of having its counters copied into every caller by the inliner later;
// the instrumented -O2 build compiles no slower than the plain one.
void addSimplification(ModulePassManager &MPM, OptimizationLevel Level)
{
    FunctionPassManager Tidy;
    Tidy.addPass(SimplifyCFGPass());
    Tidy.addPass(quarl_llvm::compat::makeSROAPass());
    Tidy.addPass(EarlyCSEPass());
    MPM.addPass(createModuleToFunctionPassAdaptor(std::move(Tidy)));

    const int PreInlineThreshold = 75, HintThreshold = 325;
    InlineParams Params;
    Params.DefaultThreshold = PreInlineThreshold;
    Params.HintThreshold = Level.isOptimizingForSize() ? PreInlineThreshold : HintThreshold;
    ModuleInlinerWrapperPass Inliner(Params);
    FunctionPassManager Cleanup;
    Cleanup.addPass(quarl_llvm::compat::makeSROAPass());
    Cleanup.addPass(EarlyCSEPass());
    Cleanup.addPass(SimplifyCFGPass());
    Cleanup.addPass(InstCombinePass());
    Inliner.getPM().addPass(createCGSCCToFunctionPassAdaptor(std::move(Cleanup)));
    MPM.addPass(std::move(Inliner));
    MPM.addPass(GlobalDCEPass()); // nothing dead gets counted
}

void addQuarlPass(ModulePassManager &MPM, OptimizationLevel Level)
{
    if (Level != OptimizationLevel::O0)
        addSimplification(MPM, Level);
    std::string Profile = profileToUse();
    if (Profile.empty()) {
        MPM.addPass(quarl_llvm::QuarlInstrumentPass());
        return;
    }
    MPM.addPass(quarl_llvm::QuarlProfileUsePass(Profile));
    if (Level == OptimizationLevel::O0)
        return;
    // What LLVM does with its own value profiles, right after reading them:
    // hot callees of indirect calls called directly behind a check, and,
    // unless optimising for size, memory operations specialised for their
    // frequent lengths.
    MPM.addPass(PGOIndirectCallPromotion());
    if (!Level.isOptimizingForSize())
        MPM.addPass(createModuleToFunctionPassAdaptor(PGOMemOPSizeOpt()));
}

} // namespace

extern "C" LLVM_ATTRIBUTE_WEAK __attribute__((visibility("default"))) PassPluginLibraryInfo
llvmGetPassPluginInfo()
{
    return {LLVM_PLUGIN_API_VERSION, "quarl", "0.1.0", [](PassBuilder &PB) {
                PB.registerPipelineStartEPCallback(
                    [](ModulePassManager &MPM, OptimizationLevel Level) { addQuarlPass(MPM, Level); });
                PB.registerPipelineParsingCallback(
                    [](StringRef Name, ModulePassManager &MPM, ArrayRef<PassBuilder::PipelineElement>) {
                        if (Name == "quarl-instrument")
                            MPM.addPass(quarl_llvm::QuarlInstrumentPass());
                        else if (Name == "quarl-profile-use")
                            MPM.addPass(quarl_llvm::QuarlProfileUsePass(profileToUse()));
                        else
                            return false;
                        return true;
                    });
            }};
}
