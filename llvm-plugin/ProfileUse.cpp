// Profile use: the counts of a training run go back to LLVM's optimiser as
// its own profiles do. For each function with a record, the graph is built
// and placed again; only when that gives the stored words (same source, same
// flags) does the record apply. Quarl derives every edge's count from the
// stored words and counters; they become the function's entry count and the
// branch weights of its terminators, and the whole profile's block counts
// become the module's profile summary. The values seen at indirect calls and
// at memory operations of unknown length become value-profile metadata, for
// LLVM's indirect-call promotion and memory-operation specialisation.
#include <algorithm>
#include <memory>

#include "llvm/ADT/DenseMap.h"
#include "llvm/ADT/StringMap.h"
#include "llvm/Analysis/ProfileSummaryInfo.h"
#include "llvm/IR/CFG.h"
#include "llvm/IR/DiagnosticInfo.h"
#include "llvm/IR/InstIterator.h"
#include "llvm/IR/Instructions.h"
#include "llvm/IR/IntrinsicInst.h"
#include "llvm/IR/MDBuilder.h"
#include "llvm/IR/Module.h"
#include "llvm/IR/ProfileSummary.h"
#include "llvm/ProfileData/InstrProf.h"
#include "llvm/ProfileData/ProfileCommon.h"

#include "QuarlPasses.h"
#include "quarl_profile.h"
#include "quarl_profile_counts.h"

using namespace llvm;

namespace quarl_llvm {
namespace {

struct ProfileDeleter {
    void operator()(QuarlProfile *Profile) const
    {
        quarl_profile_release(Profile);
        delete Profile;
    }
};

struct EdgeArrayDeleter {
    void operator()(QuarlProfileEdge *Edges) const { std::free(Edges); }
};

// The counts profile use gives one function.
struct FunctionCounts {
    Function *F = nullptr;
    uint64_t Entry = 0, MaxCount = 0;
    DenseMap<std::pair<const BasicBlock *, unsigned>, uint64_t> BranchCount; // by successor index
    const QuarlProfileFunction *Record = nullptr;
    std::vector<ValueSite> Sites;
};

// The summary LLVM's profiles carry, over every function of the profile:
// its entry count, then its counters' values. LLVM's own summary is made
// of its counters too, which sit, as Quarl's do, off a spanning tree of the
// hottest edges; its hot and cold cutoffs are tuned to that spread. (Made
// of every block's count, the hot threshold came out a third higher than
// clang's on SQLite, and fewer call sites counted as hot.) Records that do
// not give counts are left out here; a function of this module that has
// one is warned about when it is annotated.
std::unique_ptr<ProfileSummary> summarise(const QuarlProfile &Profile)
{
    InstrProfSummaryBuilder Builder(ProfileSummaryBuilder::DefaultCutoffs);
    std::vector<uint64_t> Nodes;
    for (uint32_t I = 0; I < Profile.count; ++I) {
        const QuarlProfileFunction &Record = Profile.functions[I];
        Nodes.resize(Record.num_nodes);
        if (Record.num_blocks == 0 || !quarl_profile_node_counts(&Record, Nodes.data(), nullptr))
            continue;
        std::vector<uint64_t> Counts{Nodes[2]};
        Counts.insert(Counts.end(), Record.counters, Record.counters + Record.num_counters);
        Builder.addRecord(InstrProfRecord(std::move(Counts)));
    }
    return Builder.getSummary();
}

// The record applies when placing the function now gives its stored words
// and their checksum.
bool recordFits(const QuarlProfileFunction &Record, const RoutineGraph &Plan, const Placement &Placed)
{
    return Record.checksum == quarl_profile_checksum(Placed.Words.data(), uint32_t(Placed.Words.size())) &&
           Record.flags == 0 && Record.num_blocks == Plan.NumBlocks &&
           Record.num_nodes == Plan.NumNodes && Record.num_counters == Placed.NumCounters &&
           Record.num_words == Placed.Words.size() &&
           std::equal(Placed.Words.begin(), Placed.Words.end(), Record.words);
}

// The function's records: one, or one per shape its copies took in the
// files of the training build (inline functions and templates).
using Records = SmallVector<const QuarlProfileFunction *, 1>;

bool readCounts(Function &F, const Records &Candidates, FunctionAnalysisManager &FAM, const CalleeFacts &Facts,
                FunctionCounts &Out)
{
    RoutineGraph Plan = planFunction(F, FAM, Facts);
    Placement Placed;
    if (!placeCounters(Plan, Placed, F)) {
        warn(F, "no counter placement found; compiled without profile");
        return false;
    }
    const QuarlProfileFunction *Fitting = nullptr;
    bool Direct = false;
    for (const QuarlProfileFunction *Candidate : Candidates) {
        Direct |= (Candidate->flags & QUARL_PROFILE_DIRECT_COUNTS) != 0;
        if (!Fitting && recordFits(*Candidate, Plan, Placed))
            Fitting = Candidate;
    }
    if (!Fitting && Direct) {
        warn(F, "the profile holds direct block counts (a test build); compiled without profile");
        return false;
    }
    if (!Fitting) {
        // An inline function or template has a copy in every unit that
        // uses it, and the profile a record for each shape of copy that
        // ran; the front end may have given this unit's copy a shape of its
        // own (calls without landing pads to callees it saw do not throw).
        // As with LLVM's own profiles, that is no cause for a warning.
        if (!F.hasLinkOnceLinkage() && !F.hasWeakLinkage())
            warn(F, "the profile was made from other code (the source or the compiler flags changed); "
                    "compiled without profile");
        return false;
    }
    const QuarlProfileFunction &Record = *Fitting;
    QuarlProfileEdge *Raw = nullptr;
    uint32_t NumEdges = 0;
    if (!quarl_profile_edge_counts(&Record, &Raw, &NumEdges, nullptr)) {
        warn(F, "the profile's counters give no counts (damaged); compiled without profile");
        return false;
    }
    std::unique_ptr<QuarlProfileEdge, EdgeArrayDeleter> Edges(Raw);
    // Each (source, destination) pair of nodes is one edge of the plan.
    DenseMap<std::pair<uint32_t, uint32_t>, uint64_t> CountOf;
    for (uint32_t E = 0; E < NumEdges; ++E) {
        const QuarlProfileEdge &Edge = Edges.get()[E];
        CountOf[{Edge.src, Edge.dest}] += Edge.count;
        Out.MaxCount = std::max(Out.MaxCount, Edge.count);
    }
    Out.F = &F;
    Out.Record = &Record;
    Out.Sites = valueSites(F, FAM.getResult<TargetLibraryAnalysis>(F));
    Out.Entry = CountOf.lookup({PseudoEntry, 2});
    for (const PlannedEdge &Edge : Plan.Edges)
        if (Edge.Kind == EdgeKind::Branch)
            Out.BranchCount[{Edge.From, Edge.SuccIndex}] = CountOf.lookup({Edge.Src, Edge.Dest});
    return true;
}

// Weights in successor order, as LLVM's own profiles give them: each
// switch case its own count, also where cases share a block (only
// indirectbr and callbr count such successors once, at the first), a
// terminator that never ran gets none, and counts beyond 32 bits are
// scaled down together.
void setBranchWeights(const FunctionCounts &Counts)
{
    for (BasicBlock &BB : *Counts.F) {
        Instruction *Term = BB.getTerminator();
        if (Term->getNumSuccessors() < 2)
            continue;
        SmallVector<uint64_t, 4> Weights;
        uint64_t Max = 0;
        for (unsigned I = 0; I < Term->getNumSuccessors(); ++I) {
            Weights.push_back(Counts.BranchCount.lookup({&BB, I}));
            Max = std::max(Max, Weights.back());
        }
        if (Max == 0)
            continue;
        uint64_t Scale = Max < UINT32_MAX ? 1 : Max / UINT32_MAX + 1;
        SmallVector<uint32_t, 4> Scaled;
        for (uint64_t W : Weights)
            Scaled.push_back(uint32_t(W / Scale));
        Term->setMetadata(LLVMContext::MD_prof, MDBuilder(Term->getContext()).createBranchWeights(Scaled));
    }
}

// A __builtin_expect hint is lowered into branch weights later in the
// pipeline and would overwrite the measured ones; with LLVM's own profiles,
// applied after that lowering, the measured weights win too.
void dropExpectHints(Function &F)
{
    for (Instruction &I : make_early_inc_range(instructions(F))) {
        auto *Hint = dyn_cast<IntrinsicInst>(&I);
        if (Hint && (Hint->getIntrinsicID() == Intrinsic::expect ||
                     Hint->getIntrinsicID() == Intrinsic::expect_with_probability)) {
            Hint->replaceAllUsesWith(Hint->getArgOperand(0));
            Hint->eraseFromParent();
        }
    }
}

// Every function of the module by the hash of its key, as call-target
// values name them.
DenseMap<uint64_t, Function *> functionsByKeyHash(Module &M)
{
    DenseMap<uint64_t, Function *> ByHash;
    for (Function &F : M)
        if (!F.isIntrinsic())
            ByHash[quarl_profile_key_hash(profileKey(F).c_str())] = &F;
    return ByHash;
}

bool sameSites(const QuarlProfileFunction &Record, const std::vector<ValueSite> &Sites)
{
    if (Record.num_sites != Sites.size())
        return false;
    for (uint32_t I = 0; I < Record.num_sites; ++I)
        if (Record.sites[I].kind != Sites[I].Kind)
            return false;
    return true;
}

// Value-profile metadata as LLVM's own profiles carry it: callees by the
// hash of their PGO names, the most frequent first, as many as its
// promotion passes look at. A callee that is not in this module cannot be
// promoted to and is left in the total only.
void setValueProfiles(const FunctionCounts &Counts, const DenseMap<uint64_t, Function *> &ByKeyHash)
{
    const QuarlProfileFunction &Record = *Counts.Record;
    if (Record.num_sites == 0)
        return; // a profile of the first version: no values recorded
    if (!sameSites(Record, Counts.Sites)) {
        warn(*Counts.F, "the profile's value sites differ from the code; its calls and memory operations "
                        "are compiled without value profiles");
        return;
    }
    const uint32_t MaxCallTargets = 3, MaxSizes = 4;
    Module &M = *Counts.F->getParent();
    for (uint32_t I = 0; I < Record.num_sites; ++I) {
        const QuarlProfileSite &Site = Record.sites[I];
        SmallVector<InstrProfValueData, 8> Values;
        for (uint32_t V = 0; V < Site.num_values; ++V) {
            uint64_t Value = Site.values[V].value;
            if (Site.kind == QUARL_VALUE_CALL_TARGET) {
                Function *Callee = ByKeyHash.lookup(Value);
                if (!Callee)
                    continue;
                Value = IndexedInstrProf::ComputeHash(getPGOFuncName(*Callee));
            }
            if (Site.values[V].count != 0)
                Values.push_back({Value, Site.values[V].count});
        }
        if (Values.empty())
            continue;
        llvm::stable_sort(Values, [](const InstrProfValueData &A, const InstrProfValueData &B) {
            return A.Count > B.Count;
        });
        bool IsCall = Site.kind == QUARL_VALUE_CALL_TARGET;
        annotateValueSite(M, *Counts.Sites[I].Site, Values, Site.total,
                          IsCall ? IPVK_IndirectCallTarget : IPVK_MemOPSize, IsCall ? MaxCallTargets : MaxSizes);
    }
}

} // namespace

PreservedAnalyses QuarlProfileUsePass::run(Module &M, ModuleAnalysisManager &MAM)
{
    std::unique_ptr<QuarlProfile, ProfileDeleter> Profile(new QuarlProfile QUARL_PROFILE_INIT);
    char Error[256];
    if (Path.empty()) {
        M.getContext().diagnose(DiagnosticInfoPGOProfile(
            M.getSourceFileName().c_str(), "quarl: no profile named; compiling without profile", DS_Warning));
        return PreservedAnalyses::all();
    }
    if (!quarl_profile_read_file(Path.c_str(), Profile.get(), Error, sizeof Error)) {
        M.getContext().diagnose(DiagnosticInfoPGOProfile(
            Path.c_str(), Twine("quarl: ") + Error + "; compiling without profile", DS_Warning));
        return PreservedAnalyses::all();
    }
    StringMap<Records> ByKey;
    for (uint32_t I = 0; I < Profile->count; ++I)
        ByKey[Profile->functions[I].key].push_back(&Profile->functions[I]);

    // Every function's graph is placed before any attribute changes: the
    // static estimate of a caller looks at its callees' attributes, and
    // must be the one the instrumented build saw.
    FunctionAnalysisManager &FAM = MAM.getResult<FunctionAnalysisManagerModuleProxy>(M).getManager();
    CalleeFacts Facts = CalleeFacts::of(M, FAM);
    std::vector<FunctionCounts> Annotated;
    for (Function *F : handledFunctions(M)) {
        auto Found = ByKey.find(profileKey(*F));
        if (Found == ByKey.end())
            continue; // not in the profile: compiled as without one
        FunctionCounts Counts;
        if (readCounts(*F, Found->second, FAM, Facts, Counts))
            Annotated.push_back(std::move(Counts));
    }
    M.setProfileSummary(summarise(*Profile)->getMD(M.getContext()), ProfileSummary::PSK_Instr);

    ProfileSummaryInfo PSI(M);
    DenseMap<uint64_t, Function *> ByKeyHash = functionsByKeyHash(M);
    for (FunctionCounts &Counts : Annotated) {
        Function &F = *Counts.F;
        F.setEntryCount(Function::ProfileCount(Counts.Entry, Function::PCT_Real));
        if (Counts.MaxCount != 0) {
            setBranchWeights(Counts);
            setValueProfiles(Counts, ByKeyHash);
            dropExpectHints(F);
        }
        // Hot and cold functions as LLVM's profiles mark them; a user's
        // hot attribute wins over a cold profile.
        if (PSI.isHotCount(Counts.Entry))
            F.addFnAttr(Attribute::InlineHint);
        else if (PSI.isColdCount(Counts.MaxCount) && !F.hasFnAttribute(Attribute::Hot))
            F.addFnAttr(Attribute::Cold);
        FAM.invalidate(F, PreservedAnalyses::none());
    }
    return PreservedAnalyses::none();
}

} // namespace quarl_llvm
