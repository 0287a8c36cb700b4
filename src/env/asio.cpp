// The functions of Asio that are no templates, for the whole program
// (BOOST_ASIO_SEPARATE_COMPILATION).
#include <boost/asio/impl/src.hpp>
