// What differs between the LLVM versions the plugin builds against (14 to
// 22), in one place; the rest of the plugin is written for the newest API.
#pragma once

#include "llvm/ADT/StringRef.h"
#include "llvm/Config/llvm-config.h"
#include "llvm/IR/Attributes.h"
#include "llvm/IR/DerivedTypes.h"
#include "llvm/IR/Function.h"
#include "llvm/Transforms/Scalar/SROA.h"

#if LLVM_VERSION_MAJOR >= 22
#include "llvm/Plugins/PassPlugin.h"
#else
#include "llvm/Passes/PassPlugin.h"
#endif

#if LLVM_VERSION_MAJOR >= 21
#include "llvm/Support/ModRef.h"
#endif

namespace quarl_llvm::compat {

// A pointer to Pointee in address space 0. From LLVM 17 every pointer is
// the one opaque `ptr`; LLVM 15 and 16 make `ptr` too unless the module was
// built with typed pointers, and LLVM 14 makes typed pointers.
inline llvm::PointerType *pointerTo(llvm::Type *Pointee)
{
#if LLVM_VERSION_MAJOR >= 17
    return llvm::PointerType::getUnqual(Pointee->getContext());
#else
    return Pointee->getPointerTo();
#endif
}

inline llvm::PointerType *bytePointer(llvm::LLVMContext &Ctx)
{
    return pointerTo(llvm::Type::getInt8Ty(Ctx));
}

inline bool startsWith(llvm::StringRef Text, llvm::StringRef Prefix)
{
#if LLVM_VERSION_MAJOR >= 16
    return Text.starts_with(Prefix);
#else
    return Text.startswith(Prefix);
#endif
}

// The callee does not keep the pointer argument ArgNo: `captures(none)`
// from LLVM 21, `nocapture` before.
inline void setDoesNotCapture(llvm::Function &F, unsigned ArgNo)
{
#if LLVM_VERSION_MAJOR >= 21
    F.addParamAttr(ArgNo, llvm::Attribute::getWithCaptureInfo(F.getContext(), llvm::CaptureInfo::none()));
#else
    F.addParamAttr(ArgNo, llvm::Attribute::NoCapture);
#endif
}

// SROA, free to change the control flow (the only kind before LLVM 16).
inline llvm::SROAPass makeSROAPass()
{
#if LLVM_VERSION_MAJOR >= 16
    return llvm::SROAPass(llvm::SROAOptions::ModifyCFG);
#else
    return llvm::SROAPass();
#endif
}

} // namespace quarl_llvm::compat
