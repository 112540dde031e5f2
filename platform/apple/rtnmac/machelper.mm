// The install test of macOS: the product's application as the file manager
// sees it.
#include "rtnmac/machelper.h"

#import <Foundation/Foundation.h>

#include "log/log.h"
#include "rtnmac/productpaths.h"

LUMO_LOG_MODULE("MACHELPER")

namespace tarvex::itx::rtnmac {

bool MacHelper::isLumoInstalled() {
  LOG_TRACE_SCOPE();
  @autoreleasepool {
    const std::string& bundle = productPaths().applicationBundle;
    NSString* path = [[NSString alloc] initWithBytes:bundle.data()
                                              length:bundle.size()
                                            encoding:NSUTF8StringEncoding];
    // Only the application counts, and only as a directory: a deployment
    // left behind by an uninstall, or a plain file there, is not a product.
    BOOL isDirectory = NO;
    const BOOL exists =
        path != nil && [[NSFileManager defaultManager] fileExistsAtPath:path
                                                            isDirectory:&isDirectory];
    return exists && isDirectory;
  }
}

}  // namespace tarvex::itx::rtnmac
