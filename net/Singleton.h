// An object of which the process has one.
#pragma once

// Base of T: class T : public Singleton<T>. T's constructor is not public and T names
// Singleton<T> its friend; a test can derive from T and make objects of its own.
template <class T>
class Singleton {
  public:
    // The process's T. Made on the first call, by whichever thread comes first, with T's default
    // constructor; destroyed at process exit or when the library is unloaded. It is not for the
    // destructors of other static objects.
    static T& GetInstance() {
        static T instance;
        return instance;
    }

    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

  protected:
    Singleton() = default;
    ~Singleton() = default;
};
