#ifndef MEM_FIRSTBREAK_H
#define MEM_FIRSTBREAK_H

/// Gathers the result of a check: the first relation that doesn't hold names the fault, what is
/// found broken after it is mostly its consequence.
class Mem_FirstBreak
{
public:
    void Expect(bool holds, const char* relation)
    {
        if (!holds && m_what == nullptr)
            m_what = relation;
    }

    /// A relation that was checked elsewhere; null if all held there.
    void Expect(const char* broken)
    {
        if (m_what == nullptr)
            m_what = broken;
    }

    /// The relation that broke first, a literal; null if all hold.
    const char* What() const { return m_what; }

private:
    const char* m_what = nullptr;
};

#endif
