#include <iostream>
#include <kal/cpp.h>

// Records two notes, keeps them as a compressed list in a file, and reads them back.
int main() {
    auto notes = kal::OperationList::temporary().value();
    notes.put(100, "hello").value();
    notes.put(101, "world").value();
    auto file = kal::OperationListFile::create("notes.kal").value();
    if (!file.store(1, notes).ok())
        return 1;
    for (kal::Op op : file.get(1).value())
        std::cout << "type " << op.type << ": " << op.text() << '\n';
    return file.close().code();
}
