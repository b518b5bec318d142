// What a process costs that does nothing and is linked to nothing but the language's library.
#include <string>

int main(int count, char** arguments) {
    return count > 99 ? static_cast<int>(std::string(arguments[0]).size()) : 0;
}
