// hostbus-rust SOCKET OBJECT METHOD ARGUMENTS: lists all objects, then calls one of them and prints its reply.
use std::{env, path::Path};

fn main() {
    let args: Vec<String> = env::args().collect();
    let mut bus = ubus::Connection::connect(Path::new(&args[1])).expect("connect");
    bus.lookup("", |object| {
        let mut methods: Vec<_> = object.methods.keys().copied().collect();
        methods.sort();
        println!("{} {:08x} {}", object.path, object.id, methods.join(" "));
    })
    .expect("lookup");
    let reply = bus.call(&args[2], &args[3], &args[4]).expect("call");
    println!("{}", reply);
    if let Err(error) = bus.invoke(12345, "none", &[], |_| {}) {
        println!("{}", error);
    }
}
