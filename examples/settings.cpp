// Settings of an application: a set that is kept, a child that collects what a dialogue changes, and both ways to end
// the dialogue.
#include <kal/tagset.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

bool holds(TagSet& set, const char* tag, const char* expected) {
    const char* value = set.GetTempTag(tag);
    std::printf("%s = %s\n", tag, value != nullptr ? value : "(none)");
    return value != nullptr && std::strcmp(value, expected) == 0;
}

// What the user does in the dialogue. The dialogue reads and writes the application's set as ever: its calls go to
// the child while there is one.
void change(TagSet& set) {
    set.SetTag("View.Unit", "mm");
    set.SetIntTag("View.Grid", 5);
    set.SetFloatTag("View.Zoom", 1.25, 4);
}

// A folder that is gone at the end.
struct Scratch {
    char folder[32] = "/tmp/settings-example-XXXXXX";
    Scratch() { mkdtemp(folder); }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
};

} // namespace

int main() {
    // A registry of its own, so that trying the example changes nobody's settings.
    Scratch scratch;
    if (setenv("KAL_REGISTRY", scratch.folder, 1) != 0 || setenv("XDG_RUNTIME_DIR", scratch.folder, 1) != 0)
        return 1;

    TagSet app;
    if (app.SetPath("Example\\Viewer", 1) != KAL_OK)
        return 1;
    app.SetTag("View.Unit", "inch");
    app.SetTag("Plug-in.???", "enabled"); // a pattern: for every plug-in with a name of three letters

    bool good = holds(app, "View.Unit", "inch") && holds(app, "Plug-in.abc", "enabled");

    std::puts("-- a dialogue that is cancelled");
    if (app.CreateChild() == nullptr)
        return 1;
    change(app);
    good = holds(app, "View.Unit", "mm") && good;
    app.DestroyChild();
    good = holds(app, "View.Unit", "inch") && good;

    std::puts("-- a dialogue that is confirmed");
    TagSet* child = app.CreateChild();
    if (child == nullptr)
        return 1;
    change(app);
    good = child->FuseWithParent() == KAL_OK && good;
    app.DestroyChild();
    good = holds(app, "View.Unit", "mm") && app.GetFloatTag("View.Zoom") == 1.25 && good;

    std::puts("-- all that begins with View.");
    int listed = 0;
    TagSearch search(&app, "view.");
    while (const char* name = search.NextTag()) {
        std::printf("%s: %s\n", name, name + std::strlen(name) + 1);
        listed++;
    }
    app.ClearTags();
    return good && listed == 3 ? 0 : 1;
}
