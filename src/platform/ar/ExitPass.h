// Work on the module's own threads that must not run into the process's exit.
#pragma once

namespace pelkit::ar::detail {

/// OpenCV keeps per-thread data that the process's exit tears down; a thread still inside OpenCV
/// then aborts the whole process ("Can't fetch data from terminated TLS container"), and EGL's
/// state goes the same way. The module's own threads (session, recognition, validation, the scene
/// view's renderer) hold a pass while they use OpenCV or GL: at exit the gate closes, waits for the
/// passes out (a few seconds at most) and turns later ones away.
///
///     if (auto pass = ExitPass::enter()) { ...OpenCV work... } else { ...give up: exiting... }
class ExitPass {
public:
    [[nodiscard]] static ExitPass enter();
    /// Exit handlers and static destructors run in the reverse order of their registration, and
    /// what drawing first starts (the renderer's statics, the GL driver's threads) registers its
    /// teardown then, after the gate was made: at exit it would go first, under a frame still
    /// drawing. Called once the first frame is drawn, this registers the gate again so that it
    /// closes, and waits for that frame, before all of those. Once per process.
    static void closeBeforeLibrariesStartedSoFar();
    ExitPass(ExitPass&& other) noexcept;
    ExitPass& operator=(ExitPass&&) = delete;
    ~ExitPass();
    explicit operator bool() const { return admitted_; }

private:
    explicit ExitPass(bool admitted) : admitted_(admitted) {}
    bool admitted_;
};

} // namespace pelkit::ar::detail
