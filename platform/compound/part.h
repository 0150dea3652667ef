// What the objects of a compound file share: a count of references, and the file that they hold open.
#ifndef KAL_PLATFORM_COMPOUND_PART_H
#define KAL_PLATFORM_COMPOUND_PART_H

#include "platform/compound/compound_file.h"

namespace compound {

template <class Interface>
class Part : public Interface, public ZEPObject {
public:
    explicit Part(CompoundFile& file) : file_(file) { file_.hold(); }
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    uint32_t AddRef() final { return ++references_; }

    uint32_t Release() final {
        const uint32_t left = --references_;
        if (left == 0)
            delete this;
        return left;
    }

protected:
    virtual ~Part() { file_.letGo(); }

    CompoundFile& file_;

private:
    uint32_t references_ = 1;
};

} // namespace compound

#endif
