// Exported words that any thread may read while another sets them: relaxed atomic access, which is
// an ordinary load or store on every machine, keeps that within the language's rules.
#pragma once

namespace vs_kvs {

template <class Word>
Word load(const Word &word)
{
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

template <class Word>
void store(Word &word, Word value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

// Sets a pointer after all that it leads to. Readers load it relaxed: what they read through it
// depends on the loaded address, an order which every supported processor keeps.
template <class T>
void publish(T *&pointer, T *value)
{
    __atomic_store_n(&pointer, value, __ATOMIC_RELEASE);
}

} // namespace vs_kvs
