// The backend of a settings dialog: what the user changes is seen at once, and kept or dropped at the end.
#include <kal/cpp.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace {

// While it is open the application's settings are as the user has them on the screen.
class Dialog {
public:
    explicit Dialog(kal::Settings& settings) : settings_(settings), draft_(settings.draft().value()) {}

    void choose(const char* name, const char* value) { settings_.set(name, value); }
    kal::Status confirm() { return draft_.keep(); }
    void cancel() { draft_.close(); }

private:
    kal::Settings& settings_;
    kal::Draft draft_;
};

void show(const kal::Settings& settings) {
    for (auto [name, value] : settings.withPrefix("View."))
        std::cout << "  " << name << " = " << value << '\n';
}

// A folder that is gone at the end, for a registry of its own: trying the example changes nobody's settings.
struct Scratch {
    char folder[32] = "/tmp/settings-dialog-XXXXXX";
    Scratch() {
        if (mkdtemp(folder) == nullptr || setenv("KAL_REGISTRY", folder, 1) != 0 ||
            setenv("XDG_RUNTIME_DIR", folder, 1) != 0)
            std::abort();
    }
    ~Scratch() { std::filesystem::remove_all(folder); }
};

} // namespace

int main() {
    const Scratch scratch;
    auto settings = kal::Settings::open("Example\\Viewer").value();
    settings.set("View.Unit", "inch");
    settings.set("View.Grid", "10");
    settings.set("Plug-in.???", "enabled"); // a pattern: for every plug-in with a name of three letters

    Dialog cancelled(settings);
    cancelled.choose("View.Unit", "mm");
    const bool seen = settings.get("View.Unit").value() == "mm";
    cancelled.cancel();
    std::cout << "Cancelled:\n";
    show(settings);
    const bool dropped = settings.get("View.Unit").value() == "inch";

    Dialog confirmed(settings);
    confirmed.choose("View.Unit", "mm");
    confirmed.choose("View.Grid", "5");
    const bool kept = confirmed.confirm().ok();
    std::cout << "Confirmed:\n";
    show(settings);
    return seen && dropped && kept && settings.get("View.Grid").value_or("") == "5" &&
                   settings.get("Plug-in.abc").value_or("") == "enabled"
               ? 0
               : 1;
}
