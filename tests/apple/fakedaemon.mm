#import "fakedaemon.h"

@implementation LumoFakeDaemon {
  NSMutableArray<NSString*>* _selectors;
  NSMutableArray<NSDictionary*>* _events;
}

@synthesize answer = _answer;

- (instancetype)init {
  if ((self = [super init])) {
    _selectors = [NSMutableArray array];
    _events = [NSMutableArray array];
    _answer = YES;
  }
  return self;
}

- (void)record:(SEL)selector event:(nullable NSDictionary*)event {
  @synchronized(self) {
    [_selectors addObject:NSStringFromSelector(selector)];
    if (event != nil) [_events addObject:(NSDictionary*)event];
  }
}

- (NSArray<NSString*>*)selectors {
  @synchronized(self) {
    return [_selectors copy];
  }
}

- (NSArray<NSDictionary*>*)events {
  @synchronized(self) {
    return [_events copy];
  }
}

- (void)registerWithCompletionHandler:(void (^)(BOOL))reply {
  [self record:_cmd event:nil];
  reply(self.answer);
}

- (void)handleFileEvent:(NSDictionary*)event {
  [self record:_cmd event:event];
}

- (void)handlePrinterEvent:(NSDictionary*)event {
  [self record:_cmd event:event];
}

- (void)handleProcessStartEvent:(NSDictionary*)event {
  [self record:_cmd event:event];
}

- (void)handleProcessExitEvent:(NSDictionary*)event {
  [self record:_cmd event:event];
}

- (void)startNetworkExtensionTunnelWithCompletionHandler:(void (^)(BOOL))reply {
  [self record:_cmd event:nil];
  reply(NO);
}

- (void)activateNetworkExtensionWithCompletionHandler:(void (^)(BOOL))reply {
  [self record:_cmd event:nil];
  reply(NO);
}

@end
