// Signals that ask the program to stop: the command at work undoes what it has begun, then the program ends
// as the signal would have ended it.
#ifndef KAL_TOOLS_INTERRUPT_H
#define KAL_TOOLS_INTERRUPT_H

struct Interrupted {
    int signal;
};

void catchInterrupts();

bool isInterrupted();

// Called between the steps of long work; shows its progress. Throws Interrupted.
void throwIfInterrupted();

[[noreturn]] void endByInterrupt(const Interrupted& interrupted);

#endif
