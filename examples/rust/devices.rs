//! Prints a line for each device that the locator knows.
//! rustc --edition 2021 devices.rs (finds libtalvorn as the linker does)

use std::ffi::CStr;
use std::os::raw::{c_char, c_void};
use std::process::ExitCode;
use std::ptr;

#[repr(C)]
struct RawDevice {
    size: usize,
    serial: *const c_char,
    alias: *const c_char,
    status: *const c_char,
    clip: *const c_char,
    ipv4: *const c_char,
    ipv6: *const c_char,
    host_alias: *const c_char,
    host_ipv4: *const c_char,
    host_ipv6: *const c_char,
    number: u32,
}

const OK: i32 = 0;

#[link(name = "talvorn")]
extern "C" {
    fn talvorn_status_text(status: i32) -> *const c_char;
    fn talvorn_client_open(options: *const c_void, client: *mut *mut c_void) -> i32;
    fn talvorn_client_close(client: *mut c_void);
    fn talvorn_client_get_devices(client: *mut c_void, devices: *mut *mut c_void) -> i32;
    fn talvorn_device_list_size(devices: *const c_void) -> usize;
    fn talvorn_device_list_get(devices: *const c_void, index: usize, device: *mut RawDevice)
        -> i32;
    fn talvorn_device_list_free(devices: *mut c_void);
}

struct Device {
    serial: String,
    status: String,
    alias: String,
}

/// A text that the library owns.
unsafe fn text(from: *const c_char) -> String {
    CStr::from_ptr(from).to_string_lossy().into_owned()
}

struct Client(*mut c_void);

impl Client {
    fn open() -> Result<Client, i32> {
        let mut client = ptr::null_mut();
        match unsafe { talvorn_client_open(ptr::null(), &mut client) } {
            OK => Ok(Client(client)),
            status => Err(status),
        }
    }

    fn devices(&mut self) -> Result<Vec<Device>, i32> {
        let mut list = ptr::null_mut();
        match unsafe { talvorn_client_get_devices(self.0, &mut list) } {
            OK => {}
            status => return Err(status),
        }
        let mut devices = Vec::new();
        unsafe {
            for index in 0..talvorn_device_list_size(list) {
                let mut raw: RawDevice = std::mem::zeroed();
                raw.size = std::mem::size_of::<RawDevice>();
                if talvorn_device_list_get(list, index, &mut raw) == OK {
                    devices.push(Device {
                        serial: text(raw.serial),
                        status: text(raw.status),
                        alias: text(raw.alias),
                    });
                }
            }
            talvorn_device_list_free(list);
        }
        Ok(devices)
    }
}

impl Drop for Client {
    fn drop(&mut self) {
        unsafe { talvorn_client_close(self.0) }
    }
}

fn main() -> ExitCode {
    match Client::open().and_then(|mut client| client.devices()) {
        Ok(devices) => {
            for device in devices {
                println!("{} {} {}", device.serial, device.status, device.alias);
            }
            ExitCode::SUCCESS
        }
        Err(status) => {
            eprintln!("devices: {}", unsafe { text(talvorn_status_text(status)) });
            ExitCode::FAILURE
        }
    }
}
