// Undoing in reverse order of doing: a step that has been done leaves its undoing behind, which runs at the end of the
// scope unless the whole has succeeded and is kept.
#ifndef FXM_UNDO_H
#define FXM_UNDO_H

template <typename Undo> struct fxm_undo_t {
    explicit fxm_undo_t(Undo undo_step) : undo(undo_step) {}
    ~fxm_undo_t()
    {
        if (!kept)
            undo();
    }
    fxm_undo_t(const fxm_undo_t &) = delete;
    fxm_undo_t &operator=(const fxm_undo_t &) = delete;
    void keep() { kept = true; }
    Undo undo;
    bool kept = false;
};

#endif
