# What the demangler spells out, in the words of the headers; "s/ >/>/g" first, so that each pattern ends alike.
s/ >/>/g
s/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char>>/std::string/g
s/, std::allocator<std::string>>/>/g
s/, std::less<std::string>, std::allocator<std::pair<std::string const, [^<>]*>>>/>/g
s/, std::less<std::string>, std::allocator<std::pair<std::string const, std::map<std::string, int>>>>/>/g
s/\[abi:cxx11\]//g
