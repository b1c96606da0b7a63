// A plugin for clang-tidy: its checks look at this project's code alone, and not at all that the
// system's headers declare, of which they would tell nothing. Most of their time would go there.

#include <clang/AST/ASTConsumer.h>
#include <clang/AST/ASTContext.h>
#include <clang/Basic/SourceManager.h>
#include <clang/Frontend/FrontendPluginRegistry.h>

#include <memory>
#include <string>
#include <vector>

namespace {

class own_code : public clang::ASTConsumer {
    void HandleTranslationUnit(clang::ASTContext& context) override {
        const clang::SourceManager& sources = context.getSourceManager();
        std::vector<clang::Decl*> declarations;
        for (clang::Decl* declaration : context.getTranslationUnitDecl()->decls()) {
            if (!sources.isInSystemHeader(sources.getExpansionLoc(declaration->getLocation()))) {
                declarations.push_back(declaration);
            }
        }
        context.setTraversalScope(declarations);
    }
};

class action : public clang::PluginASTAction {
    std::unique_ptr<clang::ASTConsumer> CreateASTConsumer(clang::CompilerInstance&,
                                                          llvm::StringRef) override {
        return std::make_unique<own_code>();
    }
    bool ParseArgs(const clang::CompilerInstance&, const std::vector<std::string>&) override { return true; }
    ActionType getActionType() override { return AddBeforeMainAction; }
};

const clang::FrontendPluginRegistry::Add<action> registration("own-code",
                                                              "limits checks to this project's code");

}  // namespace
